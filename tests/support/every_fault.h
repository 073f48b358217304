// Repeats a call while its first, second, ... read, write, allocation or system call fails, until
// the call completes without a fault.

#pragma once

#include "tests/support/faults.h"
#include "tests/support/ram_disk.h"

#include <cerrno>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace testing_support {

enum class fault { read, write, allocation, system_call };

// The steps that fail: one step or, with `forever`, this step and all later ones. Reads and writes
// are those of the medium in memory.
struct fault_kind {
    fault what;
    bool forever = false;
    int transfer_result = -EIO;
    call which = call::open; // the system call that fails, and its errno
    int error = 0;
};
inline std::ostream &operator<<(std::ostream &out, const fault_kind &kind) {
    static const char *const NAMES[] = {"read", "write", "allocation", "system call"};
    return out << NAMES[static_cast<int>(kind.what)] << (kind.forever ? " and all after it" : "");
}

inline constexpr fault_kind EVERY_READ = {fault::read};
inline constexpr fault_kind EVERY_WRITE = {fault::write};
inline constexpr fault_kind EVERY_ALLOCATION = {fault::allocation};
inline constexpr fault_kind NO_ALLOCATION_FROM = {fault::allocation, true};
constexpr fault_kind every_call(call which, int error) {
    return {fault::system_call, false, 0, which, error};
}

// One fault, and the one call that it may hit.
class fault_step {
public:
    fault_step(const fault_kind &what_fails, int successes) : kind(what_fails), k(successes) {}

    const fault_kind kind;
    const int k; // successful steps of the kind before the failing one

    // Makes the call and returns its result. The call must leave no memory allocated.
    template <typename Call>
    auto run(const Call &call) {
        auto result = run_keeping(call);
        EXPECT_EQ(left_allocated_, 0) << "blocks are left allocated";
        return result;
    }
    // Makes a call that may leave memory allocated.
    template <typename Call>
    auto run_keeping(const Call &call) {
        has_run_ = true;
        const allocation_meter meter;
        const armed fault(this);
        auto result = call();
        left_allocated_ = meter.live_blocks();
        return result;
    }

    [[nodiscard]] bool has_run() const {
        return has_run_;
    }
    // Whether the fault was hit.
    [[nodiscard]] bool struck() const {
        return struck_;
    }
    [[nodiscard]] bool is(fault what) const {
        return kind.what == what;
    }
    // Number of blocks that the call left allocated.
    [[nodiscard]] int left_allocated() const {
        return left_allocated_;
    }

private:
    class armed {
    public:
        explicit armed(fault_step *step) : step_(step) {
            const fault_kind &chosen = step->kind;
            if (chosen.what == fault::allocation) {
                allocation_.emplace(step->k, chosen.forever);
            } else if (chosen.what == fault::system_call) {
                call_.emplace(chosen.which, chosen.error, step->k, chosen.forever);
            } else {
                arm_disk(chosen, step->k);
            }
        }
        armed(const armed &) = delete;
        armed &operator=(const armed &) = delete;
        ~armed() {
            if (disk_ != nullptr) {
                disk_->reads_before_failure = disk_->writes_before_failure = -1;
                disk_->failure_result = result_before_;
                disk_->fails_forever = false;
            }
            step_->struck_ = allocation_.has_value() ? allocation_->struck()
                             : call_.has_value()     ? call_->struck()
                                                     : disk_->ordered_failures > 0;
        }

    private:
        void arm_disk(const fault_kind &chosen, int transfers_before) {
            disk_ = ram_disk::in_use();
            result_before_ = disk_->failure_result;
            disk_->failure_result = chosen.transfer_result;
            disk_->fails_forever = chosen.forever;
            disk_->ordered_failures = 0;
            (chosen.what == fault::read ? disk_->reads_before_failure
                                        : disk_->writes_before_failure) = transfers_before;
        }

        fault_step *step_;
        std::optional<failing_allocation> allocation_;
        std::optional<failing_call> call_;
        ram_disk *disk_ = nullptr;
        int result_before_ = 0;
    };

    bool has_run_ = false;
    bool struck_ = false;
    int left_allocated_ = 0;
};

// Runs `body` with a step for each fault of the kind; there may be no fault. The body prepares its
// call, makes the call through the step and checks the outcome; its first failure ends the loop.
// Returns the number of faults that were hit.
template <typename Body>
int at_any_fault(const fault_kind &kind, const Body &body) {
    constexpr int MOST = 3000;
    for (int k = 0; k < MOST; k++) {
        SCOPED_TRACE(testing::Message() << kind << " " << k << " fails");
        fault_step step(kind, k);
        body(step);
        EXPECT_TRUE(step.has_run()) << "no call was made";
        if (!step.struck() || testing::Test::HasFailure()) {
            return k;
        }
    }
    ADD_FAILURE() << "the call never gets through";
    return MOST;
}

// The same for several kinds; each of them must be hit.
template <typename Body>
void at_every_fault(const std::vector<fault_kind> &kinds, Body body) {
    for (const fault_kind &kind : kinds) {
        const int faults = at_any_fault(kind, body);
        if (testing::Test::HasFailure()) {
            return;
        }
        EXPECT_GT(faults, 0) << "no " << kind << " was there to fail";
    }
}

// The values that `body` returns at every fault, without adjacent duplicates. The last one is of
// the call without a fault.
template <typename Body>
auto answers_at_every_fault(const fault_kind &kind, Body body) {
    std::vector<decltype(body(std::declval<fault_step &>()))> answers;
    at_every_fault({kind}, [&](fault_step &step) {
        auto answer = body(step);
        if (answers.empty() || answers.back() != answer) {
            answers.push_back(std::move(answer));
        }
    });
    return answers;
}

// ---- test cases with a kind of fault as parameter ---------------------------------------------

struct named_fault {
    std::string name;
    fault_kind kind;
};
inline std::ostream &operator<<(std::ostream &out, const named_fault &f) {
    return out << f.name;
}

// Each kind of fault, on FAT16 and on FAT32.
using faulty_volume = std::tuple<named_fault, std::uint32_t>;
inline std::vector<faulty_volume> all_faults() {
    std::vector<faulty_volume> result;
    for (const named_fault &f : std::initializer_list<named_fault>{
             {"OneRead", EVERY_READ},
             {"ReadsFromOneOn", {fault::read, true}},
             {"OneWrite", EVERY_WRITE},
             {"OneWriteOfNothing", {fault::write, false, 0}},
             {"WritesFromOneOn", {fault::write, true}},
             {"OneAllocation", EVERY_ALLOCATION},
             {"AllocationsFromOneOn", NO_ALLOCATION_FROM},
         }) {
        result.emplace_back(f, 16);
        result.emplace_back(f, 32);
    }
    return result;
}
inline std::string fault_name(const testing::TestParamInfo<faulty_volume> &of) {
    return std::get<0>(of.param).name + "Fat" + std::to_string(std::get<1>(of.param));
}

} // namespace testing_support
