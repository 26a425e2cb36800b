#include "commons/arg_list.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "commons/args_builder.h"

namespace tovel {
namespace {

char* duplicate(const char* text) {
  char* copy = strdup(text);
  if (copy == nullptr) throw std::bad_alloc();
  return copy;
}

void freeAll(std::vector<char*>& strings) {
  for (char* s : strings) std::free(s);
  strings.clear();
}

}  // namespace

ArgList::ArgList(const ArgList& other) {
  args_.reserve(other.args_.size());
  try {
    for (const char* arg : other.args_) args_.push_back(duplicate(arg));
  } catch (...) {
    freeAll(args_);
    throw;
  }
}

ArgList& ArgList::operator=(const ArgList& other) {
  if (this != &other) {
    ArgList copy(other);
    *this = std::move(copy);
  }
  return *this;
}

ArgList& ArgList::operator=(ArgList&& other) noexcept {
  if (this != &other) {
    freeAll(args_);
    args_.swap(other.args_);
    argv_.clear();
    other.argv_.clear();
  }
  return *this;
}

ArgList::~ArgList() { freeAll(args_); }

ArgList& ArgList::operator<<(const std::string& argument) {
  args_.reserve(args_.size() + 1);
  args_.push_back(duplicate(argument.c_str()));
  return *this;
}

char* const* ArgList::argv() const {
  argv_.assign(args_.begin(), args_.end());
  argv_.push_back(nullptr);
  return argv_.data();
}

std::string ArgList::getStringRepresentation() const {
  ArgsBuilder line;
  for (const char* arg : args_) line << arg;
  return line.str();
}

}  // namespace tovel
