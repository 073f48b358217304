// A user without the privileges of root.

#pragma once

#include <unistd.h>

namespace testing_support {

// Drops root's privileges during its lifetime: file permissions apply to this program.
class plain_user {
public:
    static constexpr uid_t NOBODY = 65534;

    plain_user() : was_root_(geteuid() == 0), became_(!was_root_ || seteuid(NOBODY) == 0) {}
    plain_user(const plain_user &) = delete;
    plain_user &operator=(const plain_user &) = delete;
    ~plain_user() {
        if (was_root_ && became_ && seteuid(0) != 0) {
            _exit(1);
        }
    }

    // False if the system does not let root change its user.
    [[nodiscard]] bool is_plain() const {
        return became_;
    }

private:
    bool was_root_;
    bool became_;
};

} // namespace testing_support
