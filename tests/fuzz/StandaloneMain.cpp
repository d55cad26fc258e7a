// Runs a fuzz target on the given files and directories, without libFuzzer.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

static bool runFile(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> content{std::istreambuf_iterator<char>(file), {}};
    if (!file) {
        std::cerr << "cannot read " << path << std::endl;
        return false;
    }
    // Printed first, so that a crash shows its file.
    std::cout << path << std::endl;
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(content.data()), content.size());
    return true;
}

int main(int argc, char* argv[])
{
    int runs = 0;
    for (int i = 1; i < argc; ++i) {
        if (*argv[i] == '-') {
            continue; // libFuzzer's options
        }
        std::vector<std::filesystem::path> files;
        std::error_code error;
        if (std::filesystem::is_directory(argv[i], error)) {
            for (const auto& entry : std::filesystem::directory_iterator(argv[i], error)) {
                files.push_back(entry.path());
            }
        } else {
            files.emplace_back(argv[i]);
        }
        for (const std::filesystem::path& file : files) {
            if (!runFile(file)) {
                return EXIT_FAILURE;
            }
            ++runs;
        }
    }
    if (runs == 0) {
        std::cerr << "usage: " << argv[0] << " FILE_OR_DIRECTORY..." << std::endl;
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
