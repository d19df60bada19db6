#include "QEL_Semaphore.h"

#include <sys/ipc.h>
#include <sys/sem.h>

#include <cerrno>
#include <ctime>

namespace {

// Linux leaves the union to the caller.
union semun {
    int val;
    struct semid_ds* buf;
    unsigned short* array;
};

// One step on semaphore 0 of the set, undone by the kernel if we die.
sembuf step(short delta)
{
    sembuf op{};
    op.sem_num = 0;
    op.sem_op = delta;
    op.sem_flg = SEM_UNDO;
    return op;
}

void operate(int id, short delta)
{
    sembuf op = step(delta);
    semop(id, &op, 1);
}

}  // namespace

QEL_Semaphore::QEL_Semaphore(int key)
    : key_(key)
{
}

int QEL_Semaphore::create_sem(int nsems)
{
    const int id = semget(key_, nsems, IPC_CREAT | 0666);
    if (id != -1) {
        semun arg{};
        arg.val = 1;
        if (semctl(id, 0, SETVAL, arg) != -1)
            id_ = id;
    }
    return id;
}

int QEL_Semaphore::get_sem()
{
    const int id = semget(key_, 0, 0);
    if (id != -1)
        id_ = id;
    return id;
}

void QEL_Semaphore::P_sem()
{
    if (id_ != -1)
        operate(id_, -1);
}

bool QEL_Semaphore::P_sem_for(int ms)
{
    if (id_ == -1)
        return true;
    sembuf op = step(-1);
    timespec limit{ms / 1000, (ms % 1000) * 1000000L};
    for (;;) {
        if (semtimedop(id_, &op, 1, &limit) == 0)
            return true;
        if (errno != EINTR)
            return false;
    }
}

void QEL_Semaphore::V_sem()
{
    if (id_ != -1)
        operate(id_, +1);
}
