/* Formats the given image and creates a file on it. */

#include <fat/fat.h>

int main(int argc, char **argv) {
    fat_format_param request = {0};
    request.sector_size = 512;
    if (argc != 2 || fat_open_volume(argv[1], 1, 0) < 0) {
        return 1;
    }
    if (check_format_param(&request) != 0 || fat_format(&request) <= 0 || fat_build_super() != 0) {
        return 2;
    }
    puts(fat_create_file("Made in C") > 0 ? "made" : "failed");
    return fat_close_volume(0);
}
