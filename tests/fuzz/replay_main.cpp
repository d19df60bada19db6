// Runs a fuzz target over saved inputs (files, or directories of files) with
// the ordinary compiler: the seed corpus and every input that once found a
// fault are replayed by the test suite this way.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fs = std::filesystem;

static int replay(const fs::path& file)
{
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", file.c_str());
        return 1;
    }
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // An empty vector has no data(): pass a valid pointer all the same.
    static const uint8_t none = 0;
    LLVMFuzzerTestOneInput(bytes.empty() ? &none : reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    return 0;
}

int main(int argc, char** argv)
{
    int failures = 0, inputs = 0;
    for (int i = 1; i < argc; ++i) {
        const fs::path arg(argv[i]);
        if (fs::is_directory(arg)) {
            for (const auto& entry : fs::recursive_directory_iterator(arg))
                if (entry.is_regular_file()) {
                    failures += replay(entry.path());
                    ++inputs;
                }
        } else if (fs::exists(arg)) {
            failures += replay(arg);
            ++inputs;
        }
    }
    std::printf("%d inputs replayed\n", inputs);
    return failures == 0 && inputs > 0 ? 0 : 1;
}
