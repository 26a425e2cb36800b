// Feeds every file named on the command line, or found directly in a
// directory named there, to the fuzz target once. Built in place of libFuzzer
// so that the ordinary test suite replays the seed corpus and every input
// that once broke a target.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

namespace fs = boost::filesystem;

std::vector<fs::path> inputsOf(const fs::path& arg) {
  std::vector<fs::path> inputs;
  if (!fs::is_directory(arg)) {
    if (fs::is_regular_file(arg)) inputs.push_back(arg);
    return inputs;
  }
  for (fs::directory_iterator it(arg), end; it != end; ++it) {
    if (fs::is_regular_file(it->path())) inputs.push_back(it->path());
  }
  std::sort(inputs.begin(), inputs.end());
  return inputs;
}

}  // namespace

int main(int argc, char** argv) {
  size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    for (const fs::path& input : inputsOf(argv[i])) {
      std::ifstream in(input.string().c_str(), std::ios::binary);
      std::string data((std::istreambuf_iterator<char>(in)),
                       std::istreambuf_iterator<char>());
      fprintf(stderr, "replaying %s\n", input.string().c_str());
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(data.data()),
                             data.size());
      ++count;
    }
  }
  printf("%zu inputs replayed\n", count);
  return count == 0 ? 1 : 0;
}
