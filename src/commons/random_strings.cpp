#include "commons/random_strings.h"

#include <cstdlib>
#include <utility>

namespace tovel {

std::string randomPasswd() {
  static const char kAlphabet[] =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  std::string passwd;
  for (int i = 0; i < 7; ++i) passwd += kAlphabet[std::rand() % 62];
  return passwd;
}

std::string randomStrongPassword(int n) {
  static const std::string kClasses[] = {
      "1234567890", "ABCDEFGHIJKLMNOPQRSTUVWXYZ", "abcdefghijklmnopqrstuvwxyz"};
  std::string passwd;
  if (n <= 0) return passwd;
  for (int i = 0; i < n; ++i) {
    const std::string& chars = kClasses[i % 3];
    passwd += chars[std::rand() % chars.size()];
  }
  for (int i = 0; i < n; ++i) {
    int first = std::rand() % n;
    int second = std::rand() % n;
    std::swap(passwd[first], passwd[second]);
  }
  return passwd;
}

}  // namespace tovel
