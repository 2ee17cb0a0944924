"""Full and closed outputs, full and read-only stores, two at once."""
import itertools
import os
import signal

import support
from support import ToolTest


class Outputs(ToolTest):
    def test_a_full_output_is_a_failure(self):
        self.freeze()
        for arguments in (("list", "--store", self.store), ("list", "--json"), ("providers",), ("doctor",)):
            with self.subTest(arguments), open("/dev/full", "w") as full:
                process = support.start(*arguments, stdout=full)
                _, error = process.communicate(timeout=support.PATIENCE)
                self.assertEqual((process.returncode, error), (1, "qzfi: cannot write to standard output\n"))

    def test_an_image_whose_id_cannot_be_printed_is_told(self):
        for form in ((), ("--json",)):
            with self.subTest(form), open("/dev/full", "w") as full:
                process = support.start("freeze", self.data, "--method", "copy", "--store", self.store, *form,
                                        stdout=full)
                _, error = process.communicate(timeout=support.PATIENCE)
                identity = self.listed()[-1]
                self.assertEqual((process.returncode, error), (1, f"qzfi: image {identity} is there\n"
                                                                  "qzfi: cannot write to standard output\n"))

    def test_what_was_done_is_told_where_it_cannot_be_printed(self):
        ids = [self.freeze() for _ in range(4)]
        out, at = self.folder / "out", ("--store", self.store)
        for arguments, told in (
                (("export", ids[0], "--to", out, *at), f"image {ids[0]} is in {out} now"),
                (("import", out, *at), f"image {ids[0]} is imported"),
                (("rm", ids[0], "--yes", *at), f"image {ids[0]} is removed"),
                (("restore", ids[1], "--yes", *at), f"{self.data} was made equal to image {ids[1]}"),
                (("resync", ids[1], "--yes", "--json", *at), f"{self.data} was made equal to image {ids[1]}"),
                (("restore", ids[1], "--to", self.folder / "new", *at),
                 f"{self.folder}/new was made from image {ids[1]}"),
                (("prune", "--keep-last", "2", "--yes", "--json", *at), "prune: removed: 1")):
            with self.subTest(arguments[0]), open("/dev/full", "w") as full:
                process = support.start(*arguments, stdout=full)
                _, error = process.communicate(timeout=support.PATIENCE)
                self.assertEqual((process.returncode, error),
                                 (1, f"qzfi: {told}\nqzfi: cannot write to standard output\n"))
        self.assertEqual(self.listed(), ids[2:])

    def test_an_image_with_a_failed_post_command_is_told_once(self):
        with open("/dev/full", "w") as full:
            process = support.start("freeze", self.data, "--method", "copy", "--store", self.store, "--post", "false",
                                    stdout=full)
            _, error = process.communicate(timeout=support.PATIENCE)
        identity, = self.listed()
        self.assertEqual((process.returncode, error.count(f"image {identity} is there")), (4, 1), error)

    def test_a_closed_output_is_a_failure(self):
        command = " ".join(support.tool_command("providers"))
        result = support.run(["sh", "-c", command + " >&-"])
        self.assertEqual((result.code, result.err), (1, "qzfi: cannot write to standard output\n"))

    def test_a_closed_output_does_not_end_up_in_a_file_of_ours(self):
        command = " ".join(support.tool_command("freeze", self.data, "--method", "copy", "--store", self.store))
        result = support.run(["sh", "-c", command + " >&- 2>&-"])
        self.assertEqual(result.code, 1)
        identity, = self.listed()
        image = self.store / "images" / identity
        for file in image.rglob("*"):
            if file.is_file():
                self.assertNotIn(b"qzfi: cannot", file.read_bytes(), file)

    def test_a_reader_that_goes_away_ends_the_command_quietly(self):
        identity = self.freeze()
        commands = (("list",), ("list", "--json"), ("show", identity), ("cat", identity, "file"), ("verify", identity),
                    ("diff", identity, "--json"), ("prune", "--keep-last", "1", "--dry-run"))
        # A caller that ignores SIGPIPE hands that on.
        for arguments, restored in itertools.product(commands, (True, False)):
            with self.subTest(arguments, restored=restored):
                reader, writer = os.pipe()
                os.close(reader)
                process = support.start(*arguments, "--store", self.store, stdout=writer, restore_signals=restored)
                os.close(writer)
                _, error = process.communicate(timeout=support.PATIENCE)
                self.assertEqual(error, "")
                self.assertIn(process.returncode, (128 + signal.SIGPIPE, -signal.SIGPIPE))


class Stores(ToolTest):
    def test_a_read_only_store_is_refused_and_its_images_are_listed(self):
        mount_point = support.memory_filesystem("size=16m")
        store = mount_point / "store"
        identity = self.freeze(self.data, "--method", "copy", "--store", store)
        self.assertEqual(support.run(["mount", "-o", "remount,ro", mount_point]).code, 0)
        error = self.fail_with(1, "freeze", self.data, "--method", "copy", "--store", store)
        self.assertIn(f"qzfi: choose a method for {self.data}: ", error)
        self.assertIn("read-only", error)
        self.assertEqual(self.listed(store), [identity])

    def test_a_full_disk_is_told_and_leaves_nothing(self):
        for make in (support.memory_filesystem, "size=24m"), (support.loop_filesystem, "ext4", 40):
            with self.subTest(make[1]):
                self.fill_and_freeze(make[0](*make[1:]))

    def fill_and_freeze(self, mount_point):
        store = mount_point / "store"
        (self.data / "large").unlink(missing_ok=True)
        first = self.freeze(self.data, "--method", "copy", "--store", store)
        (self.data / "large").write_bytes(os.urandom(8 << 20))
        # It is large enough until the pre command has run.
        post = self.folder / "post"
        error = self.fail_with(1, "freeze", self.data, "--method", "copy", "--store", store, "--post", f"touch {post}",
                               "--pre", f"head -c 1G /dev/zero >{mount_point}/filler || true")
        self.assertIn(f"qzfi: freeze {self.data}: No space left (1029)\n", error)
        self.assertIn(f"\n  qzfi_split: no space left on the file system of {store}/images/", error)
        post.unlink()
        self.assertEqual(self.listed(store), [first])
        self.assertEqual(os.listdir(store / "images"), [first])

    def test_what_would_not_fit_is_not_begun(self):
        mount_point = support.memory_filesystem("size=4m")
        (self.data / "large").write_bytes(bytes(8 << 20))
        error = self.fail_with(1, "freeze", self.data, "--method", "copy", "--store", mount_point / "store")
        self.assertRegex(error, "the store's file system has [0-9]+ bytes left, and the copy needs about [0-9]+")

    def test_freezing_and_pruning_at_once_leave_whole_images_and_nothing_else(self):
        for number in range(500):
            (self.data / f"file-{number}").touch()
        first = self.freeze()
        freezes = [support.start("freeze", self.data, "--method", "copy", "--store", self.store) for _ in range(3)]
        while any(process.poll() is None for process in freezes):
            result = support.qzfi("prune", "--keep-last", "1", "--yes", "--store", self.store)
            self.assertEqual((result.code, result.err), (0, ""), str(result))
        made = []
        for process in freezes:
            out, error = process.communicate(timeout=support.PATIENCE)
            self.assertEqual((process.returncode, error), (0, ""))
            made.append(out.strip())
        self.succeed("prune", "--keep-last", "1", "--yes", "--store", self.store)
        left, = self.listed()
        self.assertIn(left, made)
        self.assertNotEqual(left, first)
        self.assertEqual(os.listdir(self.store / "images"), [left])
        self.succeed("verify", left, "--store", self.store)
        self.assertEqual(self.succeed("diff", left, "--store", self.store, "--exit-code"), "")

    def test_two_prunes_at_once_both_succeed(self):
        for _ in range(3):
            ids = [self.freeze() for _ in range(6)]
            prunes = [support.start("prune", "--keep-last", "1", "--yes", "--store", self.store) for _ in range(3)]
            for process in prunes:
                out, error = process.communicate(timeout=support.PATIENCE)
                self.assertEqual((process.returncode, error), (0, ""), out)
            self.assertEqual(self.listed(), ids[-1:])

    def test_pruning_a_directory_without_images_says_so(self):
        self.freeze()
        result = support.qzfi("prune", "--keep-last", "1", "--object", "/typo", "--yes", "--store", self.store)
        self.assertEqual((result.code, result.out, result.err), (0, "", "no images of /typo\n"))

    def test_two_at_once_make_two_images(self):
        for number in range(2000):
            (self.data / f"file-{number}").touch()
        arguments = ("freeze", self.data, "--method", "copy", "--store", self.store)
        processes = [support.start(*arguments) for _ in range(2)]
        results = [process.communicate(timeout=support.PATIENCE) for process in processes]
        self.assertEqual([process.returncode for process in processes], [0, 0], results)
        self.assertEqual(sorted(self.listed()), sorted(out.strip() for out, _ in results))
        for image in self.json("list", "--store", self.store)["images"]:
            self.assertEqual(len(os.listdir(image["objects"][0]["image_path"])), 2002)


if __name__ == "__main__":
    support.main()
