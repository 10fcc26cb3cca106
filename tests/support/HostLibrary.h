#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

// libKavelin.so as a host sees it: opened with dlopen, entry points found by name.
struct HostLibrary {
    void* handle = nullptr;

    template <typename F>
    F fn(const char* name) {
        void* sym = dlsym(handle, name);
        EXPECT_NE(sym, nullptr) << name;
        return reinterpret_cast<F>(sym);
    }
    void call(const char* name) { fn<void (*)()>(name)(); }
    void call(const char* name, const char* arg) { fn<void (*)(const char*)>(name)(arg); }
    void call(const char* name, double arg) { fn<void (*)(double)>(name)(arg); }
    void call(const char* name, bool arg) { fn<void (*)(bool)>(name)(arg); }
    void registerCallback(void (*callback)(const char*)) {
        fn<void (*)(void (*)(const char*))>("registerUnityCallback")(callback);
    }
};
