#include "zorv/cpu/procmaps.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zorvek {

bool for_each_executable_mapping(const char* maps_path,
                                 const std::function<void(const ExecutableMapping&)>& visit) {
  FILE* maps = fopen(maps_path, "re");
  if (maps == nullptr) return false;
  char* line = nullptr;
  size_t capacity = 0;
  while (getline(&line, &capacity, maps) > 0) {
    unsigned long start = 0;
    unsigned long end = 0;
    unsigned long offset = 0;
    char permissions[5] = {};
    int name_at = 0;
    if (sscanf(line, "%lx-%lx %4s %lx %*s %*s %n", &start, &end, permissions, &offset,
               &name_at) < 4 ||
        permissions[2] != 'x') {
      continue;
    }
    const char* name = line + name_at;
    visit(ExecutableMapping{start, end, offset, std::string_view(name, strcspn(name, "\n"))});
  }
  free(line);
  fclose(maps);
  return true;
}

}  // namespace zorvek
