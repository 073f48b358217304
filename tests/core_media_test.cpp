// The media of the engine: parts, changes held in memory, records of writes.

#include "core/overlay.h"
#include "core/recorder.h"
#include "tests/support/faults.h"
#include "tests/support/read_only_file.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <numeric>
#include <random>
#include <string>
#include <vector>

using namespace core;
using testing_support::read_only_file;

namespace {

using bytes = std::vector<u8>;

constexpr u32 UNIT = 512;

// Bytes whose values differ from their neighbours'.
bytes counted_bytes(std::size_t size, u8 first = 1) {
    bytes result(size);
    std::iota(result.begin(), result.end(), first);
    return result;
}

bytes read_all(medium &from) {
    bytes result(static_cast<std::size_t>(from.size()));
    EXPECT_EQ(from.read(0, result), static_cast<s64>(result.size()));
    return result;
}

std::string text_of(const recorder &record) {
    std::string text;
    for (u32 i = 0; i < record.steps(); i++) {
        const recorder::step &step = record.at(i);
        text += step.is_flush()
                    ? " flush"
                    : " " + std::to_string(step.offset) + "+" + std::to_string(step.bytes.size());
    }
    return text;
}

} // namespace

// ---- nothing, and parts -----------------------------------------------------------------------

// What a medium does that has no transfers of its own.
TEST(Medium, OfNothingRefusesTransfers) {
    bytes some(UNIT);
    memory_medium memory(some);
    EXPECT_EQ(memory.medium::read(0, some), -ENODEV);
    EXPECT_EQ(memory.medium::write(0, some), -EROFS);
    EXPECT_EQ(memory.medium::flush(), 0);
    EXPECT_EQ(memory.medium::size(), 0U);
}

TEST(MediumPart, FlushesTheWhole) {
    bytes whole(100);
    memory_medium memory(whole);
    recorder record(memory);
    medium_part part(record, 10, 20);
    EXPECT_EQ(part.flush(), 0);
    EXPECT_EQ(text_of(record), " flush");
}

TEST(MediumPart, EndsWithItsBytes) {
    struct row {
        u64 offset;
        std::size_t count;
        s64 moved;
    };
    bytes whole(100);
    memory_medium memory(whole);
    medium_part part(memory, 20, 50);
    for (const row &r : {row{0, 50, 50}, row{0, 51, 50}, row{49, 2, 1}, row{50, 1, 0},
                         row{~u64{0}, 1, 0}, row{10, 0, 0}}) {
        const bytes before = counted_bytes(100);
        std::copy(before.begin(), before.end(), whole.begin());
        bytes content(r.count);
        EXPECT_EQ(part.read(r.offset, content), r.moved) << r.offset;
        EXPECT_EQ(part.read_ahead(r.offset, content), r.moved) << r.offset;
        bytes expected = before;
        if (r.moved > 0) {
            const auto first = expected.begin() + 20 + static_cast<std::ptrdiff_t>(r.offset);
            const auto end = first + static_cast<std::ptrdiff_t>(r.moved);
            EXPECT_TRUE(std::equal(first, end, content.begin())) << r.offset;
            std::fill(first, end, u8{0xFF});
        }
        EXPECT_EQ(part.write(r.offset, bytes(r.count, 0xFF)), r.moved) << r.offset;
        EXPECT_EQ(whole, expected) << r.offset;
    }
}

// ---- overlay ----------------------------------------------------------------------------------

// Writes of any size and position, compared with a plain array.
TEST(Overlay, HoldsWhatIsWrittenUntilItIsCommittedOrDropped) {
    for (unsigned seed = 0; seed < 20; seed++) {
        std::mt19937 random(seed);
        bytes below = counted_bytes(70 * UNIT + 100);
        memory_medium memory(below);
        overlay_medium overlay(memory, UNIT);
        for (int round = 0; round < 3; round++) {
            const bytes before = below;
            bytes expected = before;
            for (int i = 0; i < 60; i++) {
                const std::size_t at = random() % expected.size();
                const bytes content(random() % (3 * UNIT), static_cast<u8>(random()));
                const std::size_t count = std::min(content.size(), expected.size() - at);
                std::copy_n(content.begin(), count, expected.begin() + static_cast<s64>(at));
                ASSERT_EQ(overlay.write(at, content), static_cast<s64>(count));
            }
            EXPECT_EQ(read_all(overlay), expected);
            EXPECT_EQ(below, before);
            EXPECT_LE(overlay.held_bytes(), 71 * UNIT);
            if (round == 1) {
                overlay.drop();
                expected = before;
            } else {
                EXPECT_EQ(overlay.commit(), 0);
            }
            EXPECT_EQ(below, expected);
            EXPECT_EQ(read_all(overlay), expected);
            EXPECT_EQ(overlay.held_bytes(), 0U);
        }
    }
}

TEST(Overlay, CommitsInAscendingOrderAndNeighboursTogether) {
    bytes below(300 * UNIT);
    memory_medium memory(below);
    recorder record(memory);
    overlay_medium overlay(record, UNIT);
    for (const u64 unit : {7, 3, 4, 290, 3}) {
        EXPECT_EQ(overlay.write(unit * UNIT, bytes(UNIT, 9)), UNIT);
    }
    EXPECT_EQ(overlay.write(10 * UNIT, bytes(200 * UNIT, 9)), 200 * UNIT);
    EXPECT_EQ(overlay.held_bytes(), 204 * UNIT);
    EXPECT_EQ(overlay.flush(), 0);
    EXPECT_EQ(overlay.commit(), 0);
    // A transfer moves at most 64 KiB.
    EXPECT_EQ(text_of(record), " flush 1536+1024 3584+512 5120+65536 70656+36864 148480+512");
}

TEST(Overlay, IsASnapshotOfTheOneBelow) {
    bytes below(4 * UNIT);
    memory_medium memory(below);
    overlay_medium first(memory, UNIT);
    EXPECT_EQ(first.write(UNIT, bytes(UNIT, 1)), UNIT);
    overlay_medium second(first, UNIT);
    EXPECT_EQ(second.write(UNIT + 10, bytes(10, 2)), 10);
    EXPECT_EQ(second.held_bytes(), UNIT);
    const bytes changed = read_all(second);
    EXPECT_EQ(changed[UNIT], 1);
    EXPECT_EQ(changed[UNIT + 10], 2);
    second.drop();
    EXPECT_EQ(read_all(second), read_all(first));
    EXPECT_EQ(second.write(UNIT + 10, bytes(10, 2)), 10);
    EXPECT_EQ(second.commit(), 0);
    EXPECT_EQ(read_all(first), changed);
    EXPECT_EQ(below, bytes(4 * UNIT));
}

TEST(Overlay, PassesOnWritesPastItsEnd) {
    bytes below(4 * UNIT);
    memory_medium memory(below);
    overlay_medium overlay(memory, UNIT, UNIT);
    EXPECT_EQ(overlay.write(0, bytes(3 * UNIT, 5)), 3 * UNIT);
    EXPECT_EQ(overlay.write(3 * UNIT, bytes(2 * UNIT, 6)), UNIT);
    EXPECT_EQ(overlay.held_bytes(), UNIT);
    EXPECT_EQ(static_cast<u32>(std::count(below.begin(), below.end(), 0)), UNIT);
    EXPECT_EQ(overlay.commit(), 0);
    EXPECT_EQ(static_cast<u32>(std::count(below.begin(), below.end(), 5)), 3 * UNIT);
}

// As an image file does: bytes between its old end and a write past it are zeros.
TEST(Overlay, GrowsOnlyIfItMay) {
    bytes below(UNIT + 100, 1);
    memory_medium memory(below);
    overlay_medium fixed(memory, UNIT);
    EXPECT_EQ(fixed.write(UNIT + 90, bytes(20, 2)), 10);
    EXPECT_EQ(fixed.write(3 * UNIT, bytes(20, 2)), 0);
    EXPECT_EQ(fixed.size(), below.size());

    overlay_medium growing(memory, UNIT);
    growing.allow_growth();
    EXPECT_EQ(growing.write(3 * UNIT + 5, bytes(20, 2)), 20);
    EXPECT_EQ(growing.write(2 * UNIT + 5, bytes(1, 3)), 1);
    bytes expected = below;
    expected.resize(3 * UNIT + 25);
    expected[2 * UNIT + 5] = 3;
    std::fill(expected.begin() + 3 * UNIT + 5, expected.end(), u8{2});
    EXPECT_EQ(growing.size(), expected.size());
    EXPECT_EQ(read_all(growing), expected);
    growing.drop();
    EXPECT_EQ(read_all(growing), below);
}

TEST(Overlay, HoldsItsChangesAfterAFailure) {
    bytes below(2 * UNIT);
    memory_medium memory(below);
    medium_part longer(memory, 0, 4 * UNIT); // has fewer bytes than it states
    overlay_medium overlay(longer, UNIT);
    EXPECT_EQ(overlay.write(2 * UNIT + 1, bytes(1)), -EIO); // the rest of the unit is needed
    EXPECT_EQ(overlay.write(2 * UNIT, bytes(UNIT, 3)), UNIT);
    bytes content(4 * UNIT);
    EXPECT_EQ(overlay.read(0, content), 3 * UNIT);
    EXPECT_EQ(overlay.commit(), -EIO);
    EXPECT_EQ(overlay.held_bytes(), UNIT);
    EXPECT_EQ(overlay.read(2 * UNIT, content), UNIT);
    EXPECT_EQ(content[0], 3);

    const read_only_file file(2 * UNIT);
    file_medium unwritable(file.fd(), 2 * UNIT);
    overlay_medium over_file(unwritable, UNIT);
    EXPECT_EQ(over_file.write(0, bytes(UNIT, 3)), UNIT);
    EXPECT_EQ(over_file.commit(), -EBADF);
    EXPECT_EQ(read_all(over_file)[0], 3);
}

TEST(Overlay, WithoutMemoryChangesNothing) {
    bytes below(40 * UNIT, 1);
    memory_medium memory(below);
    const bytes content(UNIT, 2);
    for (int successes = 0; successes < 3; successes++) { // the unit, the index, the list
        overlay_medium overlay(memory, UNIT);
        {
            const testing_support::failing_allocation fault(successes);
            EXPECT_EQ(overlay.write(UNIT, content), -ENOMEM) << successes;
        }
        EXPECT_EQ(overlay.held_bytes(), 0U);
        EXPECT_EQ(read_all(overlay), below);
        EXPECT_EQ(overlay.write(UNIT, content), UNIT);
        {
            const testing_support::failing_allocation fault(0);
            EXPECT_EQ(overlay.commit(), -ENOMEM);
        }
        EXPECT_EQ(read_all(overlay)[UNIT], 2);
    }
}

// ---- recorder ---------------------------------------------------------------------------------

TEST(Recorder, ReplaysEveryPrefix) {
    bytes below(8 * UNIT);
    memory_medium memory(below);
    recorder record(memory);
    std::vector<bytes> states = {below};
    const auto note = [&] { states.push_back(below); };
    for (const u64 unit : {5, 1, 5, 0}) {
        EXPECT_EQ(record.write(unit * UNIT, bytes(2 * UNIT, static_cast<u8>(states.size()))),
                  2 * UNIT);
        note();
        EXPECT_EQ(record.flush(), 0);
        note();
    }
    EXPECT_EQ(record.write(7 * UNIT, bytes(2 * UNIT, 0xEE)), UNIT); // short: past the end
    note();
    EXPECT_EQ(record.write(8 * UNIT, bytes(UNIT)), 0);
    EXPECT_EQ(text_of(record),
              " 2560+1024 flush 512+1024 flush 2560+1024 flush 0+1024 flush 3584+512");
    ASSERT_EQ(record.steps(), states.size() - 1);
    const bytes blank(8 * UNIT);
    for (u32 count = 0; count < states.size(); count++) {
        bytes start = blank;
        memory_medium base(start);
        overlay_medium state(base, UNIT);
        EXPECT_EQ(record.replay(0, count, state), 0);
        EXPECT_EQ(read_all(state), states[count]) << count;
        EXPECT_EQ(record.replay(count, record.steps(), state), 0);
        EXPECT_EQ(read_all(state), states.back()) << count;
    }
    record.clear();
    EXPECT_EQ(record.steps(), 0U);
}

TEST(Recorder, WithoutMemoryDoesNothing) {
    bytes below(UNIT);
    memory_medium memory(below);
    recorder record(memory);
    const bytes content = counted_bytes(UNIT);
    for (int allocations = 0; allocations < 2; allocations++) {
        const testing_support::failing_allocation fault(allocations);
        EXPECT_EQ(record.write(0, content), -ENOMEM);
    }
    const testing_support::failing_allocation fault(0);
    EXPECT_EQ(record.flush(), -ENOMEM);
    EXPECT_EQ(record.steps(), 0U);
    EXPECT_EQ(below, bytes(UNIT));
}

TEST(Recorder, DoesNotRecordFailures) {
    const read_only_file file(UNIT);
    file_medium unwritable(file.fd(), UNIT);
    recorder record(unwritable);
    EXPECT_EQ(record.write(0, bytes(UNIT)), -EBADF);
    {
        const testing_support::failing_call fault(testing_support::call::fsync, EIO);
        EXPECT_EQ(record.flush(), -EIO);
    }
    EXPECT_EQ(record.steps(), 0U);

    bytes below(UNIT);
    memory_medium memory(below);
    for (int successes = 0; successes < 2; successes++) {
        recorder other(memory);
        const testing_support::failing_allocation fault(successes);
        EXPECT_EQ(other.write(0, below), -ENOMEM);
        EXPECT_EQ(other.steps(), 0U);
    }

    bytes small(UNIT);
    memory_medium shorter(small);
    recorder source(memory);
    EXPECT_EQ(source.write(0, bytes(UNIT, 1)), UNIT);
    medium_part half(shorter, 0, UNIT / 2);
    EXPECT_EQ(source.replay(0, 1, half), -EIO);
}
