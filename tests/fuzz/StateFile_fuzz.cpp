#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "Kavelin/Platform/Linux/FileUserDefaults.h"
#include "Kavelin/log/VPLogger.h"
#include "support/VirtualMainQueue.h"

// The watched-state file as the library reads it at start: whatever a torn write
// or a stranger left there, loading keeps what it can and never misbehaves.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::filesystem::path file = [] {
        kavelin::VPLogger::setEnabled(false);
        const char* shm = "/dev/shm";
        std::string tmpl =
            std::string(::access(shm, W_OK) == 0 ? shm : "/tmp") + "/kavelin-state-fuzz-XXXXXX";
        if (!::mkdtemp(tmpl.data())) abort();
        return std::filesystem::path(tmpl) / "UserDefaults.json";
    }();
    std::ofstream(file, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));

    auto queue = std::make_shared<kavelin::VirtualMainQueue>();
    kavelin::FileUserDefaults store(file, queue);
    size_t dropped = 0;
    const auto salvaged = kavelin::salvageObject(
        std::string_view(reinterpret_cast<const char*>(data), size), dropped);
    // The store serves exactly what the salvage kept (nothing when over the size bound).
    if (salvaged)
        for (const auto& [key, value] : salvaged->items())
            if (auto stored = store.object(key); stored && *stored != value) __builtin_trap();
    // Re-serialising what was kept must not throw whatever bytes the strings hold.
    store.setObject("zelkin.fuzz", static_cast<int>(size));
    (void)queue;
    return 0;
}
