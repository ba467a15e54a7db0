// wevl-decode FILE: prints a binary trace dump as text, one record per line, oldest first.
// Exits 2 when the file is missing or is not a readable dump.
#include <cstdio>
#include <exception>

#include "Wevl/Decode.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: wevl-decode FILE\n");
    return 2;
  }
  try {
    for (auto const& line : Wevl::decode(std::filesystem::path(argv[1]))) {
      std::fwrite(line.data(), 1, line.size(), stdout);
      std::fputc('\n', stdout);
    }
  } catch (std::exception const& e) {
    std::fprintf(stderr, "wevl-decode: %s\n", e.what());
    return 2;
  }
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
    std::fprintf(stderr, "wevl-decode: cannot write the output\n");
    return 1;
  }
  return 0;
}
