// The library loaded as a program loads it: dlopen of the shared object,
// names looked up at symbol version tav8.
#ifndef TAV_TEST_SHARED_OBJECT_H
#define TAV_TEST_SHARED_OBJECT_H

#include <dlfcn.h>

#include <string>

namespace tavtest {

class SharedObject {
 public:
  explicit SharedObject(const std::string &path = TAV_SHARED_OBJECT)
      : handle_(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {}
  ~SharedObject() {
    if (handle_ != nullptr) dlclose(handle_);
  }
  SharedObject(const SharedObject &) = delete;
  SharedObject &operator=(const SharedObject &) = delete;

  bool loaded() const { return handle_ != nullptr; }
  void *symbol(const char *name) const { return handle_ ? dlvsym(handle_, name, "tav8") : nullptr; }
  // The exported function `name` as a pointer of type F (null when missing).
  template <typename F>
  F fn(const char *name) const {
    return reinterpret_cast<F>(symbol(name));
  }

 private:
  void *handle_;
};

}  // namespace tavtest

#endif
