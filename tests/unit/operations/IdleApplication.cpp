// An application for the tests of launching and quitting: it runs until it is told to stop.
#include <unistd.h>

int main() {
  for (;;) {
    ::pause();
  }
}
