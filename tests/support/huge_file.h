// A file of nearly 4 GiB that takes neither memory nor time.

#pragma once

#include "tests/support/file_fixture.h"

#include <sys/mman.h>

namespace testing_support {

// A file on clusters of 256 KiB, one cluster short of 4 GiB. Transfers of its data only count
// sectors.
class huge_file_test : public file_test {
protected:
    static constexpr std::uint32_t UNIT = 64 * 4096;
    static constexpr std::uint32_t CLUSTERS = 16383; // 4 GiB less one cluster

    huge_file_test()
        : file_test({.fat_type = 16, .sector_size = 4096, .sec_per_clus = 64, .clusters = 20000}) {
        bytes table = v.fat_copy(0);
        for (std::uint32_t i = 0; i < CLUSTERS; i++) {
            const std::uint32_t next = i + 1 < CLUSTERS ? FIRST + i + 1 : 0xFFFF;
            table[(FIRST + i) * 2] = static_cast<std::uint8_t>(next);
            table[(FIRST + i) * 2 + 1] = static_cast<std::uint8_t>(next >> 8);
        }
        v.disk.poke(volume::fat_offset(0), table);
        real_read() = read_sectors;
        real_write() = write_sectors;
        read_sectors = [](void *buf, std::uint64_t sector, std::uint32_t count) {
            return sector < sv->data_start ? real_read()(buf, sector, count) : counted(count);
        };
        write_sectors = [](void *buf, std::uint64_t sector, std::uint32_t count) {
            return sector < sv->data_start ? real_write()(buf, sector, count) : counted(count);
        };
        moved() = 0;
    }

    void SetUp() override {
        if (sizeof(std::size_t) < 8) {
            GTEST_SKIP() << "no buffer is so large here";
        }
    }
    int open(std::uint32_t size) {
        return v.open(v.top.append(short_entry("HUGE       ", ARCHIVE, FIRST, size)));
    }
    // Address space that takes no memory while nothing touches it.
    struct no_memory {
        explicit no_memory(std::size_t bytes_wanted)
            : size(bytes_wanted), at(mmap(nullptr, bytes_wanted, PROT_READ | PROT_WRITE,
                                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0)) {}
        no_memory(const no_memory &) = delete;
        no_memory &operator=(const no_memory &) = delete;
        ~no_memory() {
            munmap(at, size);
        }
        std::size_t size;
        void *at;
    };
    static std::uint64_t &moved() {
        static std::uint64_t sectors = 0;
        return sectors;
    }

    static constexpr std::uint32_t FIRST = 100;

private:
    static int counted(std::uint32_t count) {
        moved() += count;
        return static_cast<int>(count);
    }
    static fat_sector_io &real_read() {
        static fat_sector_io io = nullptr;
        return io;
    }
    static fat_sector_io &real_write() {
        static fat_sector_io io = nullptr;
        return io;
    }
};

} // namespace testing_support
