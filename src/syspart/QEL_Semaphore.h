#pragma once

// One System V semaphore set of the application, number 0 of which guards a
// camera's frame buffer. The agent only attaches to sets the application
// made; create_sem is for the creating side. The set is never removed here.
class QEL_Semaphore
{
public:
    explicit QEL_Semaphore(int key);

    int create_sem(int nsems);
    int get_sem();
    // Wait and signal on semaphore 0. SEM_UNDO: if the agent dies while
    // holding it, the kernel gives it back to the application.
    void P_sem();
    void V_sem();
    // P_sem that gives up after `ms`: false when the semaphore stayed taken
    // (an application stuck while holding it must not stop the agent).
    bool P_sem_for(int ms);

    int key() const { return key_; }
    int id() const { return id_; }

private:
    int key_;
    int id_ = -1;
};
