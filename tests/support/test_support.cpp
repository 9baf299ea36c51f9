// vorta tests: temporary directories, unique names and small file helpers.
#include "test_support.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace vorta_test {

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/vorta-test-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = buffer.data();
}

TempDir::~TempDir() {
  const std::string command = "rm -rf '" + path_ + "'";
  if (std::system(command.c_str()) != 0) {
    // Nothing more to do: a leftover temporary directory harms no test.
  }
}

std::string TempDir::file(const std::string& name) const { return path_ + "/" + name; }

std::string uniqueName(const std::string& prefix) {
  static std::atomic<unsigned> counter{0};
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  std::ostringstream name;
  name << prefix << "_" << getpid() << "_" << now.tv_sec % 100000 << now.tv_nsec / 1000 << "_" << counter++;
  return name.str();
}

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) throw std::runtime_error("cannot write " + path);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

std::string dataPath(const std::string& relative) {
  return std::string(VORTA_TEST_DATA_DIR) + "/" + relative;
}

bool underEmulation() {
  // qemu-user reports the guest's machine in uname but runs on the host's
  // kernel; its own binary name shows up in /proc/self/maps.
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line))
    if (line.find("qemu-") != std::string::npos) return true;
  return false;
}

}  // namespace vorta_test
