// Runs a fuzz target over saved inputs (files, or directories of files) with
// the ordinary compiler: the test suite replays the seed corpus and every
// input that once found a fault this way.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv)
{
    namespace fs = std::filesystem;
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        if (fs::is_directory(argv[i])) {
            for (const auto& entry : fs::recursive_directory_iterator(argv[i]))
                if (entry.is_regular_file())
                    inputs.push_back(entry.path());
        } else if (fs::exists(argv[i])) {
            inputs.push_back(argv[i]);
        }
    }
    for (const fs::path& input : inputs) {
        std::vector<char> bytes(fs::file_size(input));
        if (!std::ifstream(input, std::ios::binary).read(bytes.data(), static_cast<std::streamsize>(bytes.size()))) {
            std::fprintf(stderr, "cannot read %s\n", input.c_str());
            return 1;
        }
        static const uint8_t none = 0;      // an empty input has no data(): pass a valid pointer all the same
        LLVMFuzzerTestOneInput(bytes.empty() ? &none : reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    std::printf("%zu inputs replayed\n", inputs.size());
    return inputs.empty() ? 1 : 0;
}
