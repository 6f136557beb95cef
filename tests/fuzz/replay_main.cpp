// Runs a harness over files and folders of inputs without the fuzzing engine, so that every
// seed and every input that once failed is checked by the ordinary test build.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::vector<fs::path> inputs;
  for (int i = 1; i < argc; ++i) {
    if (fs::is_directory(argv[i])) {
      for (auto const& e : fs::recursive_directory_iterator(argv[i]))
        if (e.is_regular_file()) inputs.push_back(e.path());
    } else {
      inputs.emplace_back(argv[i]);
    }
  }
  for (auto const& p : inputs) {
    std::ifstream in(p, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<std::uint8_t const*>(bytes.data()), bytes.size());
  }
  std::cout << inputs.size() << " inputs replayed" << std::endl;
  return inputs.empty() ? 1 : 0;
}
