// Micro-benchmarks of the per-chunk and per-file work of a content
// transfer: one save of the progress document, shell quoting of a remote
// path, and the MD5 sum that decides whether an archive is fetched again.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <random>
#include <string>

#include "commons/checksum.h"
#include "commons/session_files.h"
#include "commons/sh_quote.h"
#include "xml/migration_status.h"

namespace {

// A session directory for the process, removed at exit.
class ScratchSession {
 public:
  ScratchSession() {
    char name[] = "/tmp/ferrow-micro-XXXXXX";
    if (mkdtemp(name) == nullptr) abort();
    dir_ = name;
    session_ = std::make_unique<tovel::SessionFiles>(dir_ + "/session");
  }
  ~ScratchSession() {
    session_.reset();
    std::string command = "rm -rf '" + dir_ + "'";
    if (system(command.c_str()) != 0)
      fprintf(stderr, "cannot remove %s\n", dir_.c_str());
  }
  const std::string& dir() const { return dir_; }
  const tovel::SessionFiles& session() const { return *session_; }

 private:
  std::string dir_;
  std::unique_ptr<tovel::SessionFiles> session_;
};

ScratchSession& scratch() {
  static ScratchSession session;
  return session;
}

// What the progress updater does for each chunk received: three figures,
// then a save of the whole document.
void BM_StatusSaveDuringTransfer(benchmark::State& state) {
  const tovel::SessionFiles& session = scratch().session();
  tovel::XmlMigrationStatus status(session.getStatusFileName(),
                                   session.getDocumentOwner());
  status.setAgentParams("source.example.test");
  status.setTransferTotals("500", "1073741824");
  status.setCurrentFile("example.test_web.tar.gz", "1073741824");
  long left = 1073741824;
  for (auto _ : state) {
    left -= 65536;
    status.setTransferSpeed("123456789");
    status.setTransferSizeLeft(std::to_string(left));
    status.setTransferCurrentFileSizeLeft(std::to_string(left));
    status.saveFile();
  }
}
BENCHMARK(BM_StatusSaveDuringTransfer)->Unit(benchmark::kMicrosecond);

void BM_ShQuotePath(benchmark::State& state) {
  std::string path = "/home/ferrow/migration-agent/example.test_web.tar.gz";
  for (auto _ : state) benchmark::DoNotOptimize(tovel::sh_quote(path));
}
BENCHMARK(BM_ShQuotePath);

// Every byte value, so that each class of the table is exercised.
void BM_ShQuoteAllBytes(benchmark::State& state) {
  std::string word;
  for (int i = 0; i < 4096; ++i) word.push_back(static_cast<char>(i % 256));
  for (auto _ : state) benchmark::DoNotOptimize(tovel::sh_quote(word));
  state.SetBytesProcessed(state.iterations() * word.size());
}
BENCHMARK(BM_ShQuoteAllBytes);

// An archive of 64 MiB read through a file stream, as the skip test does.
void BM_CountMd5Sum64MiB(benchmark::State& state) {
  const size_t size = 64 << 20;
  std::string file = scratch().dir() + "/archive";
  {
    std::mt19937_64 random(1);
    std::string data(size, '\0');
    for (size_t i = 0; i + 8 <= size; i += 8) {
      uint64_t v = random();
      memcpy(&data[i], &v, 8);
    }
    std::ofstream(file, std::ios::binary) << data;
  }
  for (auto _ : state) {
    std::ifstream in(file, std::ios::binary);
    benchmark::DoNotOptimize(tovel::countMd5Sum(in));
  }
  state.SetBytesProcessed(state.iterations() * size);
}
BENCHMARK(BM_CountMd5Sum64MiB)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
