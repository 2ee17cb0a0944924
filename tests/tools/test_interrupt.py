"""Signals, crashes, full and closed outputs, full and read-only stores, two at once."""
import os
import pathlib
import re
import signal
import subprocess
import unittest

import support
from support import IMAGE_ID, ToolTest


class Interrupt(ToolTest):
    """Each test has a post command that leaves a mark, and a pre command that says where it is."""

    def setUp(self):
        super().setUp()
        self.began, self.go, self.post = (self.folder / name for name in ("began", "go", "post"))
        self.arguments = ["freeze", self.data, "--method", "copy", "--store", self.store, "--workers", "1",
                          "--post", f"touch {self.post}"]

    def fill(self):
        """So many files that their copying takes longer than a signal."""
        for number in range(20000):
            (self.data / f"file-{number}").touch()

    def wait_for_split(self):
        images = self.store / "images"
        support.wait_for(lambda: images.is_dir() and any(name.startswith(".new-") and
                                                         any((images / name).rglob("file-*"))
                                                         for name in os.listdir(images)), "the copying")

    def assert_nothing_was_made(self):
        support.wait_for(self.post.exists, "the post command")
        self.assertEqual(self.listed(), [])
        self.assertEqual(os.listdir(self.store / "images"), [])

    def test_ctrl_c_in_the_pre_command(self):
        command = support.tool_command(*self.arguments, "--pre", f"touch {self.began}; sleep 1000")
        with support.Terminal(command) as terminal:
            support.wait_for(self.began.exists)
            terminal.send("\x03")
            result = terminal.finish()
        self.assertEqual(result.code, 130, str(result))
        self.assertTrue(self.post.exists(), "it has run when the command ends")
        self.assertRegex(result.out, r"qzfi: interrupted\n$")
        self.assert_nothing_was_made()

    def test_ctrl_c_while_files_are_copied(self):
        self.fill()
        with support.Terminal(support.tool_command(*self.arguments)) as terminal:
            self.wait_for_split()
            terminal.send("\x03")
            result = terminal.finish()
        self.assertEqual(result.code, 130, str(result))
        self.assertTrue(self.post.exists(), "it has run when the command ends")
        self.assert_nothing_was_made()

    def test_ctrl_c_in_the_post_command_comes_too_late(self):
        self.arguments[-1] = f"touch {self.began}; sleep 1; touch {self.post}"
        with support.Terminal(support.tool_command(*self.arguments)) as terminal:
            support.wait_for(self.began.exists)
            terminal.send("\x03")
            result = terminal.finish()
        self.assertEqual(result.code, 0, str(result))
        self.assertTrue(self.post.exists(), "it ran to its end")
        self.assertEqual(self.listed(), re.findall(IMAGE_ID, result.out))

    def end_by(self, number):
        """Sends the signal to the command alone while its pre command runs."""
        process = support.start(*self.arguments, "--pre",
                                f"touch {self.began}; while [ ! -e {self.go} ]; do sleep 0.05; done")
        support.wait_for(self.began.exists)
        process.send_signal(number)
        self.go.touch()
        out, error = process.communicate(timeout=support.PATIENCE)
        self.assertEqual((process.returncode, out, error), (130, "", "qzfi: interrupted\n"))
        self.assertTrue(self.post.exists(), "it has run when the command ends")
        self.assert_nothing_was_made()

    def test_sigterm_lets_the_pre_command_end(self):
        self.end_by(signal.SIGTERM)

    def test_sighup_does_the_same(self):
        self.end_by(signal.SIGHUP)

    def test_an_ignored_signal_stays_ignored(self):
        command = ["nohup", *support.tool_command(*self.arguments, "--pre", f"touch {self.began}; sleep 0.5")]
        process = subprocess.Popen(command, env=support.environment(), stdin=subprocess.DEVNULL, encoding="utf-8",
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, start_new_session=True)
        support.wait_for(self.began.exists)
        process.send_signal(signal.SIGHUP)
        out, error = process.communicate(timeout=support.PATIENCE)
        self.assertEqual(process.returncode, 0, error)
        self.assertEqual(self.listed(), [out.strip()])

    def test_sigterm_while_files_are_copied(self):
        self.fill()
        process = support.start(*self.arguments)
        self.wait_for_split()
        process.send_signal(signal.SIGTERM)
        out, error = process.communicate(timeout=support.PATIENCE)
        self.assertEqual((process.returncode, out), (130, ""), error)
        self.assert_nothing_was_made()

    def test_after_kill_the_post_command_runs_and_the_next_freeze_clears_up(self):
        self.fill()
        process = support.start(*self.arguments)
        self.wait_for_split()
        process.kill()
        process.communicate(timeout=support.PATIENCE)
        support.wait_for(self.post.exists, "the post command")
        self.assertEqual(len(os.listdir(self.store / "images")), 1, "half-made")
        identity = self.freeze()
        self.assertEqual(self.listed(), [identity])
        self.assertEqual(os.listdir(self.store / "images"), [identity])


class Outputs(ToolTest):
    def test_a_full_output_is_a_failure(self):
        self.freeze()
        for arguments in (("list", "--store", self.store), ("list", "--json"), ("providers",), ("doctor",),
                          ("freeze", self.data, "--method", "copy", "--store", self.store)):
            with self.subTest(arguments), open("/dev/full", "w") as full:
                process = support.start(*arguments, stdout=full)
                _, error = process.communicate(timeout=support.PATIENCE)
                self.assertEqual((process.returncode, error), (1, "qzfi: cannot write to standard output\n"))

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
        self.freeze()
        command = " ".join(support.tool_command("list", "--store", self.store, "--json"))
        result = support.run(["bash", "-c", f"{command} | true; echo ${{PIPESTATUS[0]}}"])
        self.assertIn(int(result.out), (0, 1, 128 + signal.SIGPIPE))
        self.assertIn(result.err, ("", "qzfi: cannot write to standard output\n"))


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
        mount_point = support.memory_filesystem("size=24m")
        store = mount_point / "store"
        first = self.freeze(self.data, "--method", "copy", "--store", store)
        (self.data / "large").write_bytes(os.urandom(8 << 20))
        # It is large enough until the pre command has run.
        post = self.folder / "post"
        error = self.fail_with(1, "freeze", self.data, "--method", "copy", "--store", store, "--post", f"touch {post}",
                               "--pre", f"head -c 18M /dev/zero >{mount_point}/filler")
        self.assertIn(f"qzfi: freeze {self.data}: No space left (1029)\n", error)
        self.assertTrue(post.exists())
        self.assertEqual(self.listed(store), [first])
        self.assertEqual(os.listdir(store / "images"), [first])

    def test_what_would_not_fit_is_not_begun(self):
        mount_point = support.memory_filesystem("size=4m")
        (self.data / "large").write_bytes(bytes(8 << 20))
        error = self.fail_with(1, "freeze", self.data, "--method", "copy", "--store", mount_point / "store")
        self.assertRegex(error, "the store's file system has [0-9]+ bytes left, and the copy needs about [0-9]+")

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
