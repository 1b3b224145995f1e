// Runs a fuzz entry over the files of the folders named on the command line, as a plain test.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize);

int main(int argc, char** argv) {
  size_t uFiles = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[i])) {
      if (!entry.is_regular_file())
        continue;
      std::ifstream file(entry.path(), std::ios::binary);
      const std::vector<char> data{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(data.data()), data.size());
      ++uFiles;
    }
  }
  std::printf("replayed %zu inputs\n", uFiles);
  return uFiles == 0 ? 1 : 0;
}
