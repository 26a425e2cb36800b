// Handle: the owner of one C library resource (a libssh2 session or
// channel, a malloc'd buffer), released by a given function when the owner
// goes. Session and Channel of the SSH layer derive from it.
#ifndef FERROW_COMMONS_HANDLE_H_
#define FERROW_COMMONS_HANDLE_H_

#include <cstdlib>
#include <utility>

#include "errors/exc.h"

namespace tovel {

// A null resource handed to an owner.
TOVEL_DECLARE_TAG(InvalidHandle)

// Refuses a null resource: throws InvalidHandle "Invalid handle passed".
template <typename T>
struct DefaultValidationPolicy {
  static void validate(T resource) {
    if (resource == nullptr) TOVEL_THROW(InvalidHandle);
  }
};

// Releases memory of the C allocator.
struct DefaultDestructionFunc {
  template <typename T>
  void operator()(T* resource) const {
    std::free(resource);
  }
};

// Owns `resource` from construction on; DestructionFunc()(resource) runs
// once, when the owner is destroyed. Validation runs first, so a rejected
// resource is never owned. Movable, not copyable.
template <typename T, typename DestructionFunc = DefaultDestructionFunc,
          typename ValidationPolicy = DefaultValidationPolicy<T>>
class Handle {
 public:
  explicit Handle(T resource) : resource_(resource) {
    ValidationPolicy::validate(resource_);
  }
  virtual ~Handle() {
    if (resource_ != nullptr) DestructionFunc()(resource_);
  }
  Handle(Handle&& other) noexcept : resource_(other.release()) {}
  Handle& operator=(Handle&& other) noexcept {
    std::swap(resource_, other.resource_);
    return *this;
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  T get() const { return resource_; }
  // Gives up ownership; the caller releases the resource.
  T release() { return std::exchange(resource_, nullptr); }

 private:
  T resource_;
};

}  // namespace tovel

TOVEL_EXC_TRAITS(&tovel::InvalidHandle, "InvalidHandle",
                 "Invalid handle passed");

#endif  // FERROW_COMMONS_HANDLE_H_
