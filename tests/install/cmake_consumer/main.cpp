#include <zeptick/zeptick.h>

#include <iostream>

int main() {
  std::cout << zeptick::getVersion() << '\n';
  return 0;
}
