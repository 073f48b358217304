/*
 * Prepares a flash for a ZUQ player: formats it, creates the pool and log files of the driver,
 * copies media files to it, and writes a list of the paths with which the player opens them without
 * a search.
 *
 *   zuq_player IMAGE MEDIA-FILE...
 *
 * IMAGE is an image file of the size of the flash, or its block device. The list is the file
 * "FAST.LST" in the root directory: one line for each media file, with its fast-open path and its
 * name.
 */

#include <fat/fat.h>

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#define FAST_PATH_SIZE 20 /* with the terminator */

/* Makes a FAT32 volume for a flash with pages of 8 KiB. */
static int make_file_system(const char *image) {
    fat_format_param request;
    memset(&request, 0, sizeof request);
    request.fat_size = 32;
    request.sector_size = 512;
    request.sec_per_clus = 8;
    request.page_size = 8192;
    fat_page_size_given = 1;
    strcpy(request.volume_label, "PLAYER     ");
    return check_format_param(&request) < 0 || fat_open_volume(image, 1, 0) < 0 ||
                   fat_format(&request) < 0 || fat_build_super() < 0
               ? -1
               : fat_set_encoding("UTF-8");
}

static const char *base_name(const char *path) {
    const char *slash = strrchr(path, '/');
    return slash != NULL ? slash + 1 : path;
}

/* Copies a file into the current directory. Checks the size: the import also returns 0 for a file
 * that it could not copy whole. */
static int copy_in(const char *host_path) {
    FILE *file = fopen(host_path, "rb");
    fat_entry_info info;
    long size = -1;
    int id;
    if (file == NULL) {
        return -1;
    }
    if (fseek(file, 0, SEEK_END) == 0) {
        size = ftell(file);
    }
    fclose(file);
    if (fat_copy_to_zuq(host_path, base_name(host_path), 0) < 0) {
        return -1;
    }
    id = fat_open_file(base_name(host_path));
    if (id < 0 || fat_info_of(id, &info) < 0) {
        return -1;
    }
    fat_close(id);
    return (long)info.size == size ? 0 : -1;
}

/* Appends the line of one media file to the list. */
static int list_file(int list, const char *name) {
    char path[FAST_PATH_SIZE];
    char unused[256];
    char line[FAST_PATH_SIZE + 800];
    int id = fat_open_file(name);
    int length;
    if (id < 0) {
        return -1;
    }
    if (zuq_get_fast_open_path_of_file(id, unused, path) < 0) {
        fat_close(id);
        return -1;
    }
    fat_close(id);
    length = snprintf(line, sizeof line, "%s %s\n", path, name);
    return fat_write_file(list, line, (uint32_t)length) == length ? 0 : -1;
}

/* Creates the reserved files first, so that the driver finds them before all others. */
static int fill(char **files, int count) {
    int list;
    int i;
    if (zuq_make_pool() < 0 || zuq_make_log() < 0) {
        return -1;
    }
    for (i = 0; i < count; i++) {
        if (copy_in(files[i]) < 0) {
            fprintf(stderr, "cannot copy %s\n", files[i]);
            return -1;
        }
    }
    list = fat_create_file("FAST.LST");
    if (list < 0) {
        return -1;
    }
    for (i = 0; i < count; i++) {
        if (list_file(list, base_name(files[i])) < 0) {
            return -1;
        }
    }
    return fat_close(list);
}

int main(int argc, char **argv) {
    int failed;
    if (argc < 3) {
        fprintf(stderr, "usage: %s IMAGE MEDIA-FILE...\n", argv[0]);
        return 2;
    }
    fat_set_diagnostics(NULL); /* the results are sufficient here */
    failed = make_file_system(argv[1]) < 0 || fill(argv + 2, argc - 2) < 0 || fsync(sv->fd) != 0;
    if (sv != NULL) {
        fat_close_volume(0);
    }
    puts(failed ? "failed" : "ready");
    return failed;
}
