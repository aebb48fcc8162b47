// Gives each target the inputs that are kept for it: FOLDER/TARGET/* of each folder named.

#include "fuzz/Targets.h"

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  for (const auto& target : verdo::fuzz::kTargets) {
    int count = 0;
    for (int i = 1; i < argc; ++i) {
      const fs::path folder = fs::path(argv[i]) / target.name;
      if (!fs::is_directory(folder)) continue;
      for (const auto& entry : fs::directory_iterator(folder)) {
        std::cout << entry.path().string() << "\n" << std::flush;  // before it crashes
        std::ifstream file(entry.path(), std::ios::binary);
        target.run(std::string(std::istreambuf_iterator(file), {}));
        ++count;
      }
    }
    if (count == 0) {
      std::cerr << "no input for " << target.name << '\n';
      return 1;
    }
  }
}
