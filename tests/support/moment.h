// Sets the current time of a test.

#pragma once

#include "fat/fat.h"

#include <cstdlib>
#include <ctime>
#include <string>

namespace testing_support {

// Stops the library's clock at `now` and sets the time zone, for its lifetime. The zone is written
// as POSIX does, so that no zone files are needed: "UTC0", "<+0530>-5:30".
class stopped_clock {
public:
    explicit stopped_clock(time_t now, const char *zone = "UTC0") {
        const char *before = std::getenv("TZ");
        had_zone_ = before != nullptr;
        zone_before_ = had_zone_ ? before : "";
        present() = now;
        fat_clock = read;
        setenv("TZ", zone, 1);
        tzset();
    }
    stopped_clock(const stopped_clock &) = delete;
    stopped_clock &operator=(const stopped_clock &) = delete;
    ~stopped_clock() {
        fat_clock = std::time;
        if (had_zone_) {
            setenv("TZ", zone_before_.c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }

private:
    static time_t &present() {
        static time_t now = 0;
        return now;
    }
    static time_t read(time_t *out) {
        if (out != nullptr) {
            *out = present();
        }
        return present();
    }

    bool had_zone_;
    std::string zone_before_;
};

} // namespace testing_support
