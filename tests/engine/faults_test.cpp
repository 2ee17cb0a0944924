// Each call fails once: no crash, no hang, no leak, and never a copy that is not whole without a word about it.
#include "engine_support.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <memory>

#include <qzfi_fi.h>

#include "support/fault.h"
#include "support/loop_filesystem.h"

using namespace qzfi::engine;

namespace {

using fault::Call;

std::atomic<int> failures; // that the quiet host was told
qfi_provider_host quiet_host() {
    qfi_provider_host host{};
    host.size = sizeof host;
    host.remark = [](void *, const qfi_remark *) { ++failures; };
    host.fail = [](void *, const char *, const char *, int32_t) { ++failures; };
    host.entry = [](void *, const qfi_entry *) -> int32_t { return 0; };
    return host;
}

struct Fault {
    const char *name;
    Call call;
    int error;
};

class Faults : public EngineTest, public testing::WithParamInterface<Fault> {
protected:
    void make_tree() {
        sh(R"(mkdir -p s/d/e s/x; printf a > s/f; ln s/f s/d/g; ln -s f s/l; mkfifo s/p; head -c 300000 /dev/urandom > s/big
truncate -s 500000 s/hole; setfattr -n user.a -v b s/f s/d; chown 3:4 s/d/g; chmod 711 s/x s/big; chown -h 3:4 s/l s/p; chattr -f +d s/x s/big || true)");
    }
    static bool told(const Result &result) { return result.status != 0 || result.remarks != 0; }

    /// Whether an ended call told what the trial did to it. One that told nothing did all.
    void expect_honest(const fault::Trial &trial, const Result &result) {
        if (!trial.fired()) {
            EXPECT_FALSE(told(result));
        }
        if (result.status != QFI_STATUS_NO_MEMORY) {
            EXPECT_EQ(failures != 0, told(result));
        }
        if (GetParam().call == Call::allocation && trial.fired()) {
            EXPECT_EQ(result.status, QFI_STATUS_NO_MEMORY);
        }
        if (GetParam().error == ENOSPC && trial.fired()) {
            EXPECT_EQ(result.status, static_cast<int32_t>(QFI_FI_NO_SPACE));
        }
        failures = 0;
    }
    void SetUp() override {
        EngineTest::SetUp();
        options.workers = GetParam().call == Call::thread ? 3 : 1;
    }
    /// Arranges, and makes a call within the act fail; what told nothing must have left all as it should be.
    void each(const std::function<void()> &arrange, const std::function<Result()> &act,
              const std::function<void(const Result &)> &expect_all) {
        failures = 0;
        const auto scenario = [&](fault::Trial &trial) {
            arrange();
            source = std::make_unique<Folder>(at + "/s");
            target = std::make_unique<Folder>(at);
            trial.arm();
            const Result result = act();
            trial.disarm();
            expect_honest(trial, result);
            if (!told(result))
                expect_all(result);
            EXPECT_EQ(remove("c").status, 0);
        };
        fault::for_each(GetParam().call, scenario, {.error = GetParam().error});
    }
    const qfi_provider_host host_record = quiet_host();
    std::unique_ptr<Folder> source, target; // opened anew for each trial
};

class CopyFaults : public Faults {};
TEST_P(CopyFaults, are_told) {
    make_tree();
    options.entries = options.digest = options.sync = true;
    const auto wanted = described("s");
    each([] {}, [&] { return copy_tree(source->fd, target->fd, "c", options, host_record); },
         [&](const Result &) { EXPECT_EQ(described("c"), wanted); });
}

/// A swap file in use cannot be cloned, and is no reason to do without the image of all the rest.
TEST_F(EngineTest, a_file_that_cannot_be_cloned_for_its_own_sake_is_remarked) {
    if (const auto obstacle = LoopFilesystem::obstacle("xfs"))
        GTEST_SKIP() << *obstacle;
    const LoopFilesystem disk("xfs", 320);
    use(disk.path());
    sh("mkdir s; printf a > s/one; printf b > s/two");
    options.workers = 1;
    options.data = Data::clone;
    int refused = 0;
    const auto scenario = [&](fault::Trial &trial) {
        host.remarks.clear();
        const Folder source(at + "/s"), target(at);
        trial.arm();
        const Result result = copy_tree(source.fd, target.fd, "c", options, host.record);
        trial.disarm();
        EXPECT_EQ(result.status, 0) << host.failed_operation << " " << host.failed_object;
        for (const std::string name : {"one", "two"}) {
            const bool is_remarked = host.has_remark(QFI_REMARK_UNREADABLE, name);
            refused += is_remarked ? 1 : 0;
            EXPECT_EQ(output("test -e c/" + name + " && echo -n there || echo -n missing"),
                      is_remarked ? "missing" : "there");
        }
        EXPECT_EQ(remove("c").status, 0);
    };
    fault::for_each(Call::ioctl, scenario, {.error = ETXTBSY});
    EXPECT_EQ(refused, 2) << "each of the two files once";
}

class UpdateFaults : public Faults {};
TEST_P(UpdateFaults, are_told) {
    make_tree();
    sh("head -c 100000 /dev/urandom > s/middle");
    options.sync = true;
    options.digest = GetParam().call == Call::read || GetParam().call == Call::write; // else the kernel copies
    const auto wanted = described("s");
    each(
        [&] {
            sh("cp -a s c; cd c; rm -r d/e; printf other > f; mkdir extra; ln big extra/big; : > middle; : > big; rm "
               "l; printf l > l; "
               "chmod 777 x; setfattr -n user.c -v d x");
        },
        [&] { return bring_up_to_date(source->fd, target->fd, "c", options, host_record); },
        [&](const Result &) { EXPECT_EQ(described("c"), wanted); });
}

class RemovalFaults : public Faults {};
TEST_P(RemovalFaults, are_told) {
    make_tree();
    // Also when a listing failed: what it hid was found later.
    each([&] { sh("cp -a s c"); }, [&] { return remove_tree(target->fd, "c", options, host_record); },
         [&](const Result &) { EXPECT_EQ(output("ls"), "s\n"); });
}

class WalkFaults : public Faults {};
TEST_P(WalkFaults, are_told) {
    make_tree();
    options.entries = options.digest = true;
    const auto walk = [&] {
        const Result result = walk_tree(source->fd, options, host_record);
        // Whatever was remarked, a walk that does not fail gave all that its user may see.
        if (result.status == 0 && GetParam().error != EACCES) {
            EXPECT_EQ(result.entries, 10u);
        }
        return result;
    };
    each([] {}, walk, [](const Result &result) { EXPECT_EQ(result.entries, 10u); });
}

class SharedFaults : public Faults {};
TEST_P(SharedFaults, of_ranges_of_a_large_file_are_told) {
    sh("mkdir s; truncate -s 70000000 s/f; ln s/f s/g; for i in 0 1 2 3 4; do printf $i | dd of=s/f bs=16M seek=$i "
       "conv=notrunc "
       "status=none; done");
    options.workers = 3;
    each([] {}, [&] { return copy_tree(source->fd, target->fd, "c", options, host_record); },
         [&](const Result &) { EXPECT_EQ(output("cmp s/f c/f; cmp c/f c/g; stat -c %h c/f"), "2\n"); });
}

const Fault memory{"memory", Call::allocation, 0}, opening{"open", Call::open, 0},
    opening_denied{"open_denied", Call::open, EACCES}, looking{"stat", Call::stat, 0}, reading{"read", Call::read, 0},
    writing{"write", Call::write, 0}, full{"full", Call::write, ENOSPC}, listing{"list", Call::readdir, 0},
    making{"make", Call::make, 0}, removing{"remove", Call::remove, 0}, attribute{"attribute", Call::attribute, 0},
    extended{"xattr", Call::xattr, 0}, flag{"ioctl", Call::ioctl, 0}, thread_start{"thread", Call::thread, 0},
    copying_elsewhere{"copy_elsewhere", Call::copy, EXDEV}, copying{"copy", Call::copy, EIO},
    syncing{"sync", Call::sync, 0}, seeking{"seek", Call::seek, 0}, duplicating{"fcntl", Call::fcntl, 0};

const auto name_of = [](const auto &row) { return row.param.name; };
INSTANTIATE_TEST_SUITE_P(, CopyFaults,
                         testing::Values(memory, opening, opening_denied, looking, reading, writing, full, listing,
                                         making, attribute, extended, flag, thread_start, syncing, seeking,
                                         duplicating),
                         name_of);
INSTANTIATE_TEST_SUITE_P(, UpdateFaults,
                         testing::Values(memory, opening, opening_denied, looking, reading, writing, full, listing,
                                         making, removing, attribute, extended, flag, thread_start, syncing,
                                         duplicating, copying, copying_elsewhere),
                         name_of);
INSTANTIATE_TEST_SUITE_P(, RemovalFaults,
                         testing::Values(memory, opening, opening_denied, looking, listing, removing, thread_start),
                         name_of);
INSTANTIATE_TEST_SUITE_P(, WalkFaults,
                         testing::Values(memory, opening, opening_denied, looking, reading, listing, seeking,
                                         thread_start),
                         name_of);
INSTANTIATE_TEST_SUITE_P(, SharedFaults,
                         testing::Values(memory, reading, writing, full, looking, seeking, thread_start, making),
                         name_of);

} // namespace
