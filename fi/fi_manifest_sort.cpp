#include "fi/fi_manifest_sort.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

#include "fi/fi_temporary.h"

namespace qzfi::fi {

namespace {

constexpr std::size_t buffer_size = 64 * 1024;

struct Line {
    uint32_t length;
    uint32_t path_at;
};

unsigned hex(char letter) {
    return static_cast<unsigned>(letter <= '9' ? letter - '0' : letter - 'a' + 10);
}

// The next byte of an escaped path, which is well formed; -1 at its end.
int next_byte(const char *&at, const char *end) {
    if (at == end || *at == ' ')
        return -1;
    if (*at != '\\') {
        const unsigned char plain = static_cast<unsigned char>(*at);
        ++at;
        return plain;
    }
    const unsigned byte = hex(at[2]) * 16 + hex(at[3]);
    at += 4;
    return static_cast<int>(byte);
}

bool comes_before(const char *a, const char *a_end, const char *b, const char *b_end) {
    for (;;) {
        const int left = next_byte(a, a_end), right = next_byte(b, b_end);
        if (left != right)
            return left < right;
        if (left < 0)
            return false;
    }
}

std::string temporary_name() {
    return temporary_base() + ": temporary file of a sorted manifest";
}

int open_temporary() {
    const std::string base = temporary_base();
    const int fd = open(base.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (fd >= 0 || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL))
        return fd;
    std::string name = base + "/qzfi-sort-XXXXXX";
    const int named = mkostemp(name.data(), O_CLOEXEC);
    if (named >= 0)
        unlink(name.c_str());
    return named;
}

// Reads one sorted run back: each line after its `Line`.
struct Run {
    off_t at = 0, end = 0;
    std::vector<char> buffer;
    std::size_t used = 0;
    std::string line;
    uint32_t path_at = 0;

    const char *path() const { return line.data() + path_at; }
    const char *line_end() const { return line.data() + line.size(); }
};

} // namespace

struct LineSorter::State {
    const char *operation;
    std::size_t chunk;
    std::string lines; // of the chunk in memory
    struct Place {
        std::size_t start;
        Line line;
    };
    std::vector<Place> places;
    std::size_t given = 0; // of the places, when all fit into memory
    Descriptor file;
    off_t file_size = 0;
    std::vector<Run> runs; // once merging, a heap: the first comes next

    void sort_places();
    void write_run();
    void write(const std::string &bytes);
    bool advance(Run &run);
    void read(Run &run, void *out, std::size_t size);
};

namespace {

bool comes_later(const Run &a, const Run &b) {
    return comes_before(b.path(), b.line_end(), a.path(), a.line_end());
}

} // namespace

void LineSorter::State::sort_places() {
    std::sort(places.begin(), places.end(), [&](const Place &a, const Place &b) {
        const char *const left = lines.data() + a.start, *const right = lines.data() + b.start;
        return comes_before(left + a.line.path_at, left + a.line.length, right + b.line.path_at, right + b.line.length);
    });
}

void LineSorter::State::write(const std::string &bytes) {
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t count = ::write(file.get(), bytes.data() + done, bytes.size() - done);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            fail_call(operation, "write", temporary_name(), count < 0 ? errno : EIO, false);
        done += static_cast<std::size_t>(count);
    }
    file_size += static_cast<off_t>(bytes.size());
}

void LineSorter::State::write_run() {
    if (!file) {
        file.reset(open_temporary());
        if (!file)
            fail_call(operation, "open", temporary_name(), errno, false);
    }
    sort_places();
    Run run;
    run.at = file_size;
    std::string bytes;
    for (const Place &place : places) {
        bytes.append(reinterpret_cast<const char *>(&place.line), sizeof place.line);
        bytes.append(lines, place.start, place.line.length);
        if (bytes.size() < buffer_size)
            continue;
        write(bytes);
        bytes.clear();
    }
    write(bytes);
    run.end = file_size;
    runs.push_back(std::move(run));
    lines.clear();
    places.clear();
}

void LineSorter::State::read(Run &run, void *out, std::size_t size) {
    char *to = static_cast<char *>(out);
    while (size != 0) {
        if (run.used == run.buffer.size()) {
            run.buffer.resize(std::min(buffer_size, static_cast<std::size_t>(run.end - run.at)));
            run.used = 0;
            ssize_t count;
            do
                count = pread(file.get(), run.buffer.data(), run.buffer.size(), run.at);
            while (count < 0 && errno == EINTR);
            if (count <= 0)
                fail_call(operation, "read", temporary_name(), count < 0 ? errno : EIO, true);
            run.buffer.resize(static_cast<std::size_t>(count));
            run.at += count;
        }
        const std::size_t part = std::min(size, run.buffer.size() - run.used);
        std::memcpy(to, run.buffer.data() + run.used, part);
        run.used += part;
        to += part;
        size -= part;
    }
}

bool LineSorter::State::advance(Run &run) {
    if (run.used == run.buffer.size() && run.at == run.end)
        return false;
    Line line;
    read(run, &line, sizeof line);
    run.line.resize(line.length);
    read(run, run.line.data(), line.length);
    run.path_at = line.path_at;
    return true;
}

LineSorter::LineSorter(const char *operation, std::size_t chunk) : state_(std::make_unique<State>()) {
    state_->operation = operation;
    state_->chunk = chunk;
}

LineSorter::~LineSorter() = default;

void LineSorter::add(std::string_view line, std::size_t path_at) {
    State &state = *state_;
    const std::size_t held = state.lines.size() + state.places.size() * sizeof(State::Place);
    if (!state.places.empty() && held + line.size() + sizeof(State::Place) > state.chunk)
        state.write_run();
    // Grown once, not by doubling: both halves of a growth would count.
    if (state.lines.capacity() == 0 && state.chunk > line.size())
        state.lines.reserve(std::min<std::size_t>(state.chunk, 1u << 20));
    state.places.push_back({state.lines.size(), {static_cast<uint32_t>(line.size()), static_cast<uint32_t>(path_at)}});
    state.lines += line;
}

void LineSorter::sort() {
    State &state = *state_;
    if (state.runs.empty()) {
        state.sort_places();
        return;
    }
    state.write_run();
    state.lines.shrink_to_fit();
    state.places.shrink_to_fit();
    std::erase_if(state.runs, [&](Run &run) { return !state.advance(run); });
    std::make_heap(state.runs.begin(), state.runs.end(), comes_later);
}

bool LineSorter::next(std::string &line) {
    State &state = *state_;
    if (!state.runs.empty()) {
        std::pop_heap(state.runs.begin(), state.runs.end(), comes_later);
        Run &run = state.runs.back();
        line = run.line;
        if (state.advance(run))
            std::push_heap(state.runs.begin(), state.runs.end(), comes_later);
        else
            state.runs.pop_back();
        return true;
    }
    if (state.given == state.places.size())
        return false;
    const State::Place &place = state.places[state.given++];
    line.assign(state.lines, place.start, place.line.length);
    return true;
}

} // namespace qzfi::fi
