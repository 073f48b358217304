/*
 * The public header and the shared library from C: built as C99, C11 and C17, and included by
 * c_api_test.cpp as C++20. Takes the path of a scratch file; exits with 0 on success.
 */

#include <fat/fat.h>

#include <fat/fat.h>

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#define IMAGE_BYTES (16L * 1024 * 1024)

static int failures = 0;

#define CHECK(condition)                                                                           \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            printf("%s:%d: failed: %s\n", __FILE__, __LINE__, #condition);                         \
            failures++;                                                                            \
        }                                                                                          \
    } while (0)

static time_t still_clock(time_t *out) {
    const time_t moment = 1234567890;
    if (out != NULL) {
        *out = moment;
    }
    return moment;
}

static int refusing_transfer(void *buf, uint64_t sector, uint32_t count) {
    (void)buf;
    (void)sector;
    (void)count;
    return -EIO;
}

static void make_image(const char *path) {
    FILE *file = fopen(path, "wb");
    CHECK(file != NULL);
    if (file == NULL) {
        exit(1);
    }
    CHECK(fseek(file, IMAGE_BYTES - 1, SEEK_SET) == 0);
    CHECK(fputc(0, file) == 0);
    CHECK(fclose(file) == 0);
}

/* Reads at most `size` - 1 bytes of `path` as a string. */
static void read_text(const char *path, char *text, size_t size) {
    FILE *file = fopen(path, "rb");
    size_t length = 0;
    CHECK(file != NULL);
    if (file != NULL) {
        length = fread(text, 1, size - 1, file);
        fclose(file);
    }
    text[length] = '\0';
}

/* Without a chosen stream diagnostics go to standard error. */
static void diagnostics_go_to_standard_error(const char *path) {
    char text[256];
    const char *message;
    CHECK(freopen(path, "w", stderr) != NULL);
    CHECK(fat_open_volume(NULL, 0, 0) == -EINVAL);
    fflush(stderr);
    read_text(path, text, sizeof text);
    CHECK(strncmp(text, "fat_open_volume[", 16) == 0);
    message = strchr(text, ']');
    CHECK(message != NULL && strcmp(message, "]: NULL path!\n\n") == 0);
}

static void diagnostics_go_where_they_are_sent(void) {
    char text[256] = "";
    FILE *stream = tmpfile();
    CHECK(stream != NULL);
    fat_set_diagnostics(stream);
    CHECK(fat_open_volume("", 0, 1) == -EINVAL);
    rewind(stream);
    CHECK(fgets(text, sizeof text, stream) != NULL);
    CHECK(strstr(text, "]: failed to open FAT volume!\n") != NULL);
    fat_set_diagnostics(stderr);
    fclose(stream);
}

static void formats_an_image(const char *path) {
    fat_format_param param;
    unsigned char sector[4096];
    memset(&param, 0, sizeof param);
    param.fat_size = 16;
    param.sector_size = 512;
    param.sec_per_clus = 4;
    memcpy(param.volume_label, "FROM C     ", sizeof param.volume_label);
    make_image(path);
    CHECK(check_format_param(&param) == 0);
    CHECK(param.volume_id == 1234567890);
    CHECK(fat_open_volume(path, 1, 0) >= 0);
    CHECK(sv != NULL && sv->vol_size == (uint64_t)IMAGE_BYTES && sv->long_name == 1);
    CHECK(fat_format(&param) > 0);
    CHECK(sv->fat_type == 16 && sv->sector_size == 512 && sv->sec_per_clus == 4);
    CHECK(sv->total_sectors == (uint32_t)(IMAGE_BYTES / 512));
    CHECK(read_sectors(sector, 0, 1) == 1);
    CHECK(sector[510] == 0x55 && sector[511] == 0xAA);
    CHECK(memcmp(sector + 3, "Torvik  ", 8) == 0);
    CHECK(memcmp(sector + 43, "FROM C     ", 11) == 0);
    CHECK(fat_close_volume(0) == 0);
    CHECK(sv == NULL);
    CHECK(remove(path) == 0);
}

static void prints_the_volume(const char *path) {
    char text[256];
    FILE *stream = tmpfile();
    CHECK(stream != NULL);
    make_image(path);
    CHECK(fat_open_volume(path, 0, 0) >= 0);
    print_volume_summary(stream);
    rewind(stream);
    CHECK(fgets(text, sizeof text, stream) != NULL);
    CHECK(strcmp(text, "- Volume size:\t\t16777216 Bytes\n") == 0);
    fclose(stream);
    CHECK(fat_close_volume(0) == 0);
    CHECK(remove(path) == 0);
}

/* The transfers can be replaced while the volume is open; then the target does not change. */
static void transfers_can_be_replaced(const char *path) {
    fat_format_param param;
    FILE *file;
    int byte;
    memset(&param, 0, sizeof param);
    make_image(path);
    CHECK(check_format_param(&param) == 0);
    CHECK(fat_open_volume(path, 0, 0) >= 0);
    read_sectors = refusing_transfer;
    write_sectors = refusing_transfer;
    fat_set_diagnostics(NULL);
    CHECK(fat_format(&param) == -EIO);
    fat_set_diagnostics(stderr);
    CHECK(fat_close_volume(0) == 0);
    file = fopen(path, "rb");
    CHECK(file != NULL);
    if (file != NULL) {
        for (byte = fgetc(file); byte == 0; byte = fgetc(file)) {
        }
        CHECK(byte == EOF);
        fclose(file);
    }
    CHECK(remove(path) == 0);
}

static void state_is_that_of_a_fresh_process(void) {
    size_t i;
    CHECK(sv == NULL);
    CHECK(fat_page_size_given == 0);
    CHECK(fat_clock == time);
    for (i = 0; i < sizeof oentry_table / sizeof oentry_table[0]; i++) {
        CHECK(oentry_table[i] == NULL);
    }
    for (i = 0; i < sizeof oentry_map / sizeof oentry_map[0]; i++) {
        CHECK(oentry_map[i] == 0);
    }
}

int main(int argc, char **argv) {
    if (argc != 2) {
        printf("usage: c_api_test SCRATCH-FILE\n");
        return 2;
    }
    state_is_that_of_a_fresh_process();
    diagnostics_go_to_standard_error(argv[1]);
    diagnostics_go_where_they_are_sent();
    fat_clock = still_clock;
    formats_an_image(argv[1]);
    prints_the_volume(argv[1]);
    transfers_can_be_replaced(argv[1]);
    return failures == 0 ? 0 : 1;
}
