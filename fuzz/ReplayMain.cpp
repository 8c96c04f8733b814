#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "Input.h"

// Runs the inputs of a target's folders in a build without the fuzzer, so that each finding stays
// fixed. Arguments are files and folders. Ends with 1 when there is not a single input.

namespace {

std::vector<std::filesystem::path> InputsOf(int argc, char **argv)
{
    std::vector<std::filesystem::path> inputs;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path path = argv[i];
        if (std::filesystem::is_directory(path)) {
            std::copy(std::filesystem::directory_iterator(path), {}, std::back_inserter(inputs));
        } else if (std::filesystem::exists(path)) {
            inputs.push_back(path);
        }
    }
    std::sort(inputs.begin(), inputs.end());
    return inputs;
}

// From a block of exactly its size: reading past it is found.
void Run(const std::filesystem::path &path)
{
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), {});
    std::vector<std::uint8_t> input(bytes.begin(), bytes.end());
    input.shrink_to_fit();
    LLVMFuzzerTestOneInput(input.data(), input.size());
}

} // namespace

int main(int argc, char **argv)
try {
    const std::vector<std::filesystem::path> inputs = InputsOf(argc, argv);
    LLVMFuzzerTestOneInput(nullptr, 0);
    // Forth and back: no input may leave anything behind for another.
    for (const std::filesystem::path &input : inputs) {
        std::printf("%s\n", input.c_str());
        std::fflush(stdout); // the last line names the input that ended the process
        Run(input);
    }
    std::for_each(inputs.rbegin(), inputs.rend(), Run);
    std::printf("%zu inputs\n", inputs.size());
    return inputs.empty() ? EXIT_FAILURE : EXIT_SUCCESS;
} catch (const std::exception &failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return EXIT_FAILURE;
}
