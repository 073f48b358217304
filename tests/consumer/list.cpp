// Lists the root directory of the given image.

#include <fat/fat.h>

#include <iostream>
#include <string>

int main(int argc, char **argv) {
    const std::string image = argc == 2 ? argv[1] : "";
    if (fat_open_volume(image.c_str(), 1, 0) < 0 || fat_build_super() != 0) {
        return 1;
    }
    fat_entry_info entry;
    for (std::uint32_t index = 0; fat_next_entry(0, &index, &entry) == 1;) {
        std::cout << entry.name << '\n';
    }
    return fat_close_volume(0);
}
