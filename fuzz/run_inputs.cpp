// run_inputs.cpp - the main of a fuzz target built without libFuzzer.
//
// Runs the target once on each file named on the command line, and on each
// file of each folder named (not recursing).  Arguments that start with '-'
// are libFuzzer's options and are ignored, so that one command line serves
// both builds.  Exits 0 when every input ran; a finding ends the program
// inside the target, as under libFuzzer.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

namespace {

bool run_file(const std::filesystem::path &path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "cannot read %s\n", path.c_str());
    return false;
  }
  const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                std::istreambuf_iterator<char>());
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(bytes.data()), bytes.size());
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  long runs = 0;
  bool ok = true;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (!arg.empty() && arg[0] == '-') continue;
    const std::filesystem::path path(arg);
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec)) {
      std::vector<std::filesystem::path> files;
      for (const auto &entry : std::filesystem::directory_iterator(path, ec))
        if (entry.is_regular_file()) files.push_back(entry.path());
      std::sort(files.begin(), files.end());
      for (const auto &file : files) {
        ok = run_file(file) && ok;
        ++runs;
      }
    } else {
      ok = run_file(path) && ok;
      ++runs;
    }
  }
  std::printf("%s: %ld inputs run\n", argv[0], runs);
  return ok ? 0 : 1;
}
