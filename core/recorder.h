// The writes and flushes that reach a medium, in their order: what a power failure may have cut.

#pragma once

#include "core/medium.h"
#include "core/resources.h"

namespace core {

// Passes every transfer to the medium below, and records those that change it.
class recorder : public medium {
public:
    // A write of the bytes that were moved, or a flush, which has none.
    struct step {
        u64 offset;
        std::span<const u8> bytes;

        [[nodiscard]] bool is_flush() const {
            return bytes.empty();
        }
    };

    explicit recorder(medium &below) : below_(below) {}
    ~recorder() {
        clear();
    }

    s64 read(u64 offset, std::span<u8> bytes) override;
    s64 write(u64 offset, std::span<const u8> bytes) override; // -ENOMEM: nothing is written
    int flush() override;
    [[nodiscard]] u64 size() const override {
        return below_.size();
    }

    [[nodiscard]] u32 steps() const {
        return steps_.count();
    }
    [[nodiscard]] const step &at(u32 index) const {
        return steps_[index];
    }

    // Repeats the steps from `first` to before `end` on another medium. Returns 0 or a negative
    // errno.
    [[nodiscard]] int replay(u32 first, u32 end, medium &on) const;

    void clear();

private:
    medium &below_;
    record_list<step> steps_;
};

} // namespace core
