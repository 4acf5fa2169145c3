// What the fuzz targets of tests/fuzz/ share: without libFuzzer (a compiler other than clang),
// KEL_FUZZ_REPLAY_MAIN adds a main that replays the files, or directories of files, named on the
// command line through LLVMFuzzerTestOneInput.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// A fuzz target's input as text.
inline std::string FuzzText(const uint8_t* data, size_t size) {
  return std::string(reinterpret_cast<const char*>(data), size);
}

#ifdef KEL_FUZZ_REPLAY_MAIN
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  size_t runs = 0;
  for (int i = 1; i < argc; i++) {
    if (argv[i][0] == '-') continue;  // libFuzzer flags mean nothing here
    std::vector<fs::path> files;
    if (fs::is_directory(argv[i])) {
      for (const auto& entry : fs::directory_iterator(argv[i])) files.push_back(entry.path());
    } else {
      files.push_back(argv[i]);
    }
    for (const fs::path& file : files) {
      std::ifstream in(file, std::ios::binary);
      if (!in) {
        std::cerr << "cannot read " << file << "\n";
        return 1;
      }
      std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
      runs++;
    }
  }
  std::cout << "replayed " << runs << " inputs\n";
  return 0;
}
#endif
