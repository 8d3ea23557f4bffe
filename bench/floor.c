/* The floor under a migration: only the file-system calls that its outcome requires, in order.
 *
 *   floor DEVICE SYNCS
 *
 * For each plain container of a legacy device: list it, read the app's info dictionary without
 * parsing it, write, flush and rename a marker, make the two new containers, rename the items,
 * append a record of 400 bytes twice with fdatasync, flush the file system SYNCS times, unlink the
 * marker and remove the container. Three flushes a container with SYNCS 0. Never for real data:
 * nothing is checked but that calls succeed. */
#define _GNU_SOURCE
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#define MOBILE "private/var/mobile/"

static void check(int result, const char* what) {
  if (result >= 0) return;
  perror(what);
  exit(1);
}

static int directory(int parent, const char* name) {
  const int fd = openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  check(fd, name);
  return fd;
}

static int made(int parent, const char* name) {
  check(mkdirat(parent, name, 0755), name);
  return directory(parent, name);
}

static void read_info(int container, const char* app) {
  static char buffer[65536];
  struct stat info;
  const int bundle = directory(container, app);
  const int file = openat(bundle, "Info.plist", O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  check(file, "Info.plist");
  check(fstat(file, &info), "fstat");
  check((int)read(file, buffer, sizeof buffer), "read");
  close(file);
  close(bundle);
}

static void write_marker(int container) {
  static char text[600];
  const int file = openat(container, ".marker.tmp", O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  check(file, "marker");
  check((int)write(file, text, sizeof text), "write");
  check(fsync(file), "fsync");
  close(file);
  check(renameat(container, ".marker.tmp", container, "marker"), "rename");
}

static void append_record(int records) {
  static char record[400];
  check((int)write(records, record, sizeof record), "record");
  check(fdatasync(records), "fdatasync");
}

static int is_app(const char* name) {
  const size_t length = strlen(name);
  return length > 4 && strcmp(name + length - 4, ".app") == 0;
}

static void migrate(int legacy, const char* name, int data, int bundles, int records, int syncs) {
  char names[16][256];
  int count = 0;
  int app = -1;
  const int container = directory(legacy, name);
  DIR* entries = fdopendir(dup(container));
  for (struct dirent* entry; (entry = readdir(entries)) != NULL;) {
    if (entry->d_name[0] == '.' || count == 16) continue;
    if (is_app(entry->d_name)) app = count;
    strcpy(names[count++], entry->d_name);
  }
  closedir(entries);
  if (app < 0) exit(2);
  read_info(container, names[app]);
  write_marker(container);
  const int new_data = made(data, name);
  const int new_bundle = made(bundles, name);
  append_record(records);
  for (int i = 0; i < count; ++i) {
    check(renameat(container, names[i], i == app ? new_bundle : new_data, names[i]), names[i]);
  }
  append_record(records);
  for (int i = 0; i < syncs; ++i) check(syncfs(legacy), "syncfs");
  check(unlinkat(container, "marker", 0), "unlink");
  close(container);
  close(new_data);
  close(new_bundle);
  check(unlinkat(legacy, name, AT_REMOVEDIR), "rmdir");
}

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const int root = directory(AT_FDCWD, argv[1]);
  const int legacy = directory(root, MOBILE "Applications");
  const int containers = made(root, MOBILE "Containers");
  const int data = made(containers, "Data");
  const int bundles = made(containers, "Bundle");
  const int records = openat(root, "private/var/quorveld/records",
                             O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  check(records, "records");
  DIR* entries = fdopendir(dup(legacy));
  for (struct dirent* entry; (entry = readdir(entries)) != NULL;) {
    if (entry->d_name[0] != '.') {
      migrate(legacy, entry->d_name, data, bundles, records, atoi(argv[2]));
    }
  }
  closedir(entries);
  return 0;
}
