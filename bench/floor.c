/* The floor under a migration: only the file-system calls that its outcome requires, in order.
 *
 *   floor DEVICE SYNCS
 *   floor DEVICE steps
 *
 * For each plain container of a legacy device: list it, read the app's info dictionary without
 * parsing it, write, flush and rename a marker, make the two new containers, rename the items,
 * append a record of 400 bytes twice with fdatasync, flush the file system SYNCS times, unlink the
 * marker and remove the container. Three flushes a container with SYNCS 0.
 *
 * With "steps" it makes every change that a migration's fixed order of steps makes, since each may
 * be what a killed run leaves behind: the marker, a placeholder with its dictionary, its two
 * containers and its mark; the data's items; the staged bundle and its container; the placeholder's
 * removal; seven pages of the registry's log and nine lines of the service's; and three syncfs. It
 * looks at nothing but the container's list and one dictionary, and neither parses nor encodes.
 *
 * Never for real data: nothing is checked but that calls succeed. */
#define _GNU_SOURCE
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/xattr.h>
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

static void write_file(int parent, const char* name, int length, int flushed) {
  static char text[4096];
  const int file = openat(parent, ".new.tmp", O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  check(file, name);
  check((int)write(file, text, (size_t)length), name);
  if (flushed) check(fsync(file), "fsync");
  close(file);
  check(renameat(parent, ".new.tmp", parent, name), "rename");
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

struct device {
  int legacy, data, bundles, packages, records, log;
};

struct items {
  char names[16][256];
  int count, app;
};

static void list(int container, struct items* items) {
  DIR* entries = fdopendir(dup(container));
  items->count = 0;
  items->app = -1;
  for (struct dirent* entry; (entry = readdir(entries)) != NULL;) {
    if (entry->d_name[0] == '.' || items->count == 16) continue;
    if (is_app(entry->d_name)) items->app = items->count;
    strcpy(items->names[items->count++], entry->d_name);
  }
  closedir(entries);
  if (items->app < 0) exit(2);
}

static void move_data(int container, const struct items* items, int data) {
  for (int i = 0; i < items->count; ++i) {
    if (i == items->app) continue;
    check(renameat(container, items->names[i], data, items->names[i]), items->names[i]);
  }
}

static void migrate(const struct device* device, const char* name, int syncs) {
  struct items items;
  const int container = directory(device->legacy, name);
  list(container, &items);
  const char* app = items.names[items.app];
  read_info(container, app);
  write_file(container, "marker", 600, 1);
  const int new_data = made(device->data, name);
  const int new_bundle = made(device->bundles, name);
  append_record(device->records);
  move_data(container, &items, new_data);
  check(renameat(container, app, new_bundle, app), app);
  append_record(device->records);
  for (int i = 0; i < syncs; ++i) check(syncfs(device->legacy), "syncfs");
  check(unlinkat(container, "marker", 0), "unlink");
  close(container);
  close(new_data);
  close(new_bundle);
  check(unlinkat(device->legacy, name, AT_REMOVEDIR), "rmdir");
}

static void log_lines(const struct device* device, int count) {
  static char line[220];
  for (; count > 0; --count) check((int)write(device->log, line, sizeof line), "log");
}

/* As the registry's database writes each: what stands before a page, and the page. */
static void log_pages(const struct device* device, int count) {
  static char page[2048];
  for (; count > 0; --count) {
    check((int)write(device->records, page, 24), "frame");
    check((int)write(device->records, page, sizeof page), "page");
  }
}

static int placeholder(const struct device* device, const char* app, const char* name, int* data) {
  const int package = made(device->packages, app);
  write_file(package, "Info.plist", 205, 0);
  log_pages(device, 1);
  *data = made(device->data, name);
  const int container = made(device->bundles, "placeholder");
  check(renameat(device->packages, app, container, app), app);
  check(fsetxattr(package, "user.mark", "1", 1, 0), "mark");
  close(package);
  check(syncfs(device->legacy), "syncfs");
  log_pages(device, 2);
  return container;
}

static void remove_placeholder(const struct device* device, int container, const char* app) {
  const int bundle = directory(container, app);
  check(unlinkat(bundle, "Info.plist", 0), "unlink");
  close(bundle);
  check(unlinkat(container, app, AT_REMOVEDIR), app);
  check(unlinkat(device->bundles, "placeholder", AT_REMOVEDIR), "placeholder");
}

static void migrate_by_steps(const struct device* device, const char* name) {
  struct items items;
  int data;
  const int container = directory(device->legacy, name);
  list(container, &items);
  const char* app = items.names[items.app];
  read_info(container, app);
  write_file(container, "marker", 437, 0);
  log_lines(device, 5);
  const int made_first = placeholder(device, app, name, &data);
  move_data(container, &items, data);
  const int staging = made(container, "Staging");
  const int payload = made(staging, "Payload");
  check(renameat(container, app, payload, app), app);
  log_lines(device, 2);
  log_pages(device, 1);
  check(syncfs(device->legacy), "syncfs");
  const int bundle = made(device->bundles, name);
  check(renameat(payload, app, bundle, app), app);
  check(syncfs(device->legacy), "syncfs");
  log_pages(device, 3);
  remove_placeholder(device, made_first, app);
  check(unlinkat(staging, "Payload", AT_REMOVEDIR), "Payload");
  check(unlinkat(container, "Staging", AT_REMOVEDIR), "Staging");
  check(unlinkat(container, "marker", 0), "marker");
  log_lines(device, 2);
  const int opened[] = {made_first, data, staging, payload, bundle, container};
  for (size_t i = 0; i < sizeof opened / sizeof *opened; ++i) close(opened[i]);
  check(unlinkat(device->legacy, name, AT_REMOVEDIR), "rmdir");
}

static int appended(int root, const char* name) {
  const int file = openat(root, name, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  check(file, name);
  return file;
}

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const int by_steps = strcmp(argv[2], "steps") == 0;
  const int root = directory(AT_FDCWD, argv[1]);
  const int containers = made(root, MOBILE "Containers");
  struct device device = {
      .legacy = directory(root, MOBILE "Applications"),
      .data = made(containers, "Data"),
      .bundles = made(containers, "Bundle"),
      .packages = made(containers, "Packages"),
      .records = appended(root, "private/var/quorveld/records"),
      .log = appended(root, "private/var/quorveld/log"),
  };
  DIR* entries = fdopendir(dup(device.legacy));
  for (struct dirent* entry; (entry = readdir(entries)) != NULL;) {
    if (entry->d_name[0] == '.') continue;
    if (by_steps) {
      migrate_by_steps(&device, entry->d_name);
    } else {
      migrate(&device, entry->d_name, atoi(argv[2]));
    }
  }
  closedir(entries);
  return 0;
}
