// qzfi cat: a file's bytes from an image.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "tools/qzfi/commands.h"
#include "tools/qzfi/places.h"

namespace qzfi::tool {

namespace {

struct Options {
    ImageName image;
    PlaceName place;
};

class File {
public:
    explicit File(int descriptor) : descriptor_(descriptor) {}
    ~File() {
        if (descriptor_ >= 0)
            close(descriptor_);
    }
    File(const File &) = delete;
    File &operator=(const File &) = delete;
    int get() const { return descriptor_; }

private:
    int descriptor_;
};

[[noreturn]] void fail(const std::string &action, int error) {
    throw Failure(action + ": " + std::strerror(error));
}

// Links are followed where they stay below the object: one to elsewhere would show what is not of the image's time.
int open_below(int object, const std::string &path) {
    open_how how = {};
    how.flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY; // a pipe would let wait for its writer
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    for (;;) {
        const long descriptor = syscall(SYS_openat2, object, path.c_str(), &how, sizeof how);
        // EAGAIN: something was renamed on the way.
        if (descriptor >= 0 || (errno != EINTR && errno != EAGAIN))
            return static_cast<int>(descriptor);
    }
}

void write_all(const char *data, std::size_t length) {
    while (length > 0) {
        const ssize_t written = write(STDOUT_FILENO, data, length);
        if (written < 0 && errno == EPIPE) { // the reader has had enough, as `head` has
            (void)std::signal(SIGPIPE, SIG_DFL);
            (void)raise(SIGPIPE);
        }
        if (written < 0 && errno != EINTR)
            fail("write to standard output", errno);
        if (written > 0) {
            data += written;
            length -= static_cast<std::size_t>(written);
        }
    }
}

void copy(int file, const std::string &reading) {
    std::string buffer(256 * 1024, '\0');
    for (;;) {
        const ssize_t count = read(file, buffer.data(), buffer.size());
        if (count == 0)
            return;
        if (count > 0)
            write_all(buffer.data(), static_cast<std::size_t>(count));
        else if (errno != EINTR)
            fail(reading, errno);
    }
}

int run(const Settings &settings, const Options &options) {
    const Session session(settings);
    const Tree tree = open_tree(options.image);
    const Place place = find_place(tree.get(), options.place);
    const std::string reading = "read " + path_in_original(place) + " in image " + id_of(tree.get());
    Text path;
    check(qfi_op_access(place.object, nullptr, Out(path)), reading);
    const File object(open(path.get(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (object.get() < 0)
        fail(reading + ": " + path.get(), errno);
    const File file(open_below(object.get(), place.below.empty() ? "." : place.below));
    if (file.get() < 0) {
        if (errno == EXDEV)
            throw Failure(reading + ": it leads out of the image");
        fail(reading, errno);
    }
    struct stat status = {};
    if (fstat(file.get(), &status) != 0)
        fail(reading, errno);
    if (S_ISDIR(status.st_mode))
        fail(reading, EISDIR);
    if (!S_ISREG(status.st_mode))
        throw Failure(reading + ": it is no file");
    (void)std::signal(SIGPIPE, SIG_IGN); // told as any other failure to write
    copy(file.get(), reading);
    return exit_done;
}

} // namespace

void add_cat(CommandLine &line) {
    add_command<Options>(line, "cat", "Print a file from an image", run, [](Arguments &command, Options &options) {
        add_image(command, options.image);
        command.add_option("FILE", options.place.file, "Below the object, or the original's path")
            .required()
            .not_empty();
        add_object(command, options.place.object);
    });
}

} // namespace qzfi::tool
