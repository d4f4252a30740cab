// A library that a test program opens and closes at run time: its static
// object allocates when the library is loaded and frees when it is closed,
// and its one function allocates and frees through C and C++ alike.
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

namespace {

struct Registry {
  Registry() : names(new std::map<int, std::string>), scratch(std::malloc(4000)) {}
  ~Registry() {
    delete names;
    std::free(scratch);
  }
  std::map<int, std::string>* names;
  void* scratch;
};

Registry g_registry;

}  // namespace

extern "C" __attribute__((visibility("default"))) long plugin_work(int rounds) {
  long sum = 0;
  for (int i = 0; i < rounds; ++i) {
    (*g_registry.names)[i % 97] = std::string(static_cast<std::size_t>(i % 300), 'a' + i % 26);
    char* text = static_cast<char*>(std::malloc(static_cast<std::size_t>(i % 500) + 1));
    std::memset(text, 'x', static_cast<std::size_t>(i % 500));
    text[i % 500] = '\0';
    sum += static_cast<long>(std::strlen(text));
    std::free(text);
  }
  for (const auto& entry : *g_registry.names) sum += static_cast<long>(entry.second.size());
  return sum;
}
