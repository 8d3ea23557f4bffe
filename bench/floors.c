/* The floors under single operations: the system calls that each outcome requires, nothing else.
 *
 *   floors list DIR          read the directory and write one line of name and prefix an entry
 *   floors remove DIR        read, unlink and remove, below a directory with one level of others
 *   floors standardize DIR   look, chown and chmod each item once
 *   floors copy-data A B     A's bytes by kernel-side copies, each as long as it goes
 *   floors copy-sparse A B   only the parts of A that hold data
 *
 * A program that does what ours must and is as fast as these is as fast as it can be; where even
 * these miss a target, the target is out of reach. Never for real data. */
#define _GNU_SOURCE
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

enum { OWNER = 33, BUFFER = 1 << 16 };

static long check(long result, const char* what) {
  if (result >= 0) return result;
  perror(what);
  exit(1);
}

static int directory(int parent, const char* name) {
  return (int)check(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC), name);
}

/* Hands each entry to `visit` but for "." and "..". */
static void each(int parent, const char* name, void (*visit)(int, const struct dirent64*)) {
  char* buffer = malloc(BUFFER);
  const int fd = directory(parent, name);
  for (ssize_t got; (got = check(getdents64(fd, buffer, BUFFER), name)) > 0;) {
    for (char* at = buffer; at < buffer + got;) {
      const struct dirent64* entry = (const struct dirent64*)at;
      at += entry->d_reclen;
      if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) visit(fd, entry);
    }
  }
  close(fd);
  free(buffer);
}

static const char* prefix;
static char output[BUFFER];
static size_t filled;

static void flush_output(void) {
  check(write(STDOUT_FILENO, output, filled), "write");
  filled = 0;
}

static void print_entry(int fd, const struct dirent64* entry) {
  (void)fd;
  const size_t before = strlen(prefix), length = strlen(entry->d_name);
  if (filled + before + length + 2 > sizeof output) flush_output();
  memcpy(output + filled, prefix, before);
  output[filled + before] = '/';
  memcpy(output + filled + before + 1, entry->d_name, length);
  filled += before + length + 1;
  output[filled++] = '\n';
}

static void remove_entry(int fd, const struct dirent64* entry) {
  const int is_directory = entry->d_type == DT_DIR;
  if (is_directory) each(fd, entry->d_name, remove_entry);
  check(unlinkat(fd, entry->d_name, is_directory ? AT_REMOVEDIR : 0), entry->d_name);
}

static void standardize_entry(int fd, const struct dirent64* entry) {
  struct stat info;
  check(fstatat(fd, entry->d_name, &info, AT_SYMLINK_NOFOLLOW), entry->d_name);
  check(fchownat(fd, entry->d_name, OWNER, OWNER, AT_SYMLINK_NOFOLLOW), entry->d_name);
  const int is_directory = S_ISDIR(info.st_mode);
  check(fchmodat(fd, entry->d_name, is_directory ? 0755 : 0644, 0), entry->d_name);
  if (is_directory) each(fd, entry->d_name, standardize_entry);
}

static void copy_range(int from, int to, off_t begin, off_t end) {
  while (begin < end) {
    off_t written = begin;
    if (check(copy_file_range(from, &begin, to, &written, (size_t)(end - begin), 0), "copy") == 0) {
      return;
    }
  }
}

static void copy_file(const char* source, const char* destination, int is_sparse) {
  struct stat info;
  const int from = (int)check(open(source, O_RDONLY | O_NOFOLLOW | O_CLOEXEC), source);
  const int to = (int)check(open(destination, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600),
                            destination);
  check(fstat(from, &info), source);
  check(ftruncate(to, info.st_size), destination);
  if (!is_sparse) {
    copy_range(from, to, 0, info.st_size);
    return;
  }
  for (off_t end = 0, begin; (begin = lseek(from, end, SEEK_DATA)) >= 0;) {
    end = check(lseek(from, begin, SEEK_HOLE), "hole");
    copy_range(from, to, begin, end);
  }
}

int main(int argc, char** argv) {
  const char* what = argc > 1 ? argv[1] : "";
  if (argc == 3 && strcmp(what, "list") == 0) {
    prefix = argv[2];
    each(AT_FDCWD, argv[2], print_entry);
    flush_output();
  } else if (argc == 3 && strcmp(what, "remove") == 0) {
    each(AT_FDCWD, argv[2], remove_entry);
    check(rmdir(argv[2]), argv[2]);
  } else if (argc == 3 && strcmp(what, "standardize") == 0) {
    each(AT_FDCWD, argv[2], standardize_entry);
    check(chown(argv[2], OWNER, OWNER), argv[2]);
  } else if (argc == 4 && strcmp(what, "copy-data") == 0) {
    copy_file(argv[2], argv[3], 0);
  } else if (argc == 4 && strcmp(what, "copy-sparse") == 0) {
    copy_file(argv[2], argv[3], 1);
  } else {
    return 2;
  }
  return 0;
}
