#include <string>
#include <vector>

#include "admin/Ambrant.h"

int main(int argc, char** argv) {
  return kestrin::admin::ambrantMain(std::vector<std::string>(argv + 1, argv + argc));
}
