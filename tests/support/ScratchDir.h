#pragma once

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>

// A private directory under /tmp, removed with its contents when the test is done.
struct ScratchDir {
    std::filesystem::path path;

    explicit ScratchDir(const std::string& stem = "kavelin-test") {
        std::string name = "/tmp/" + stem + "-XXXXXX";
        if (!::mkdtemp(name.data())) throw std::runtime_error("mkdtemp failed for " + name);
        path = name;
    }
    ~ScratchDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    // Watched marks go here instead of the developer's own store.
    const ScratchDir& asConfigHome() const {
        ::setenv("XDG_CONFIG_HOME", path.c_str(), 1);
        return *this;
    }
};
