// The functions that the preload library's wrappers stand in front of, found
// with dlsym(RTLD_NEXT) at their first use: a wrapper can run before the
// library's constructor (another library's constructor may read or write).
#ifndef PRELOAD_NEXT_H
#define PRELOAD_NEXT_H

#include <dlfcn.h>

#include <atomic>

namespace preload {

template <typename Function>
class Next {
public:
    constexpr explicit Next(const char *name) : name_(name) {}

    // The next definition of the function; two threads that resolve it at once
    // find the same address.
    Function Get()
    {
        Function function = function_.load(std::memory_order_acquire);
        if (function == nullptr) {
            function = reinterpret_cast<Function>(dlsym(RTLD_NEXT, name_));
            function_.store(function, std::memory_order_release);
        }
        return function;
    }

private:
    const char *name_;
    std::atomic<Function> function_{nullptr};
};

}  // namespace preload

#endif
