"""Signals and crashes."""
import os
import re
import signal
import subprocess

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
        self.assertIn(f"qzfi: freeze {self.data}: Cancelled (1035)\n", result.out)
        self.assertRegex(result.out, "with no exit code: the context process ended first, as by a signal, or could")
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
        self.assertEqual((process.returncode, out, error), (130, "", f"qzfi: freeze {self.data}: Cancelled (1035)\n"))
        self.assertTrue(self.post.exists(), "it has run when the command ends")
        self.assert_nothing_was_made()

    def test_a_post_command_that_fails_after_a_signal_is_told(self):
        self.arguments[-1] += "; exit 5"
        process = support.start(*self.arguments, "--pre",
                                f"touch {self.began}; while [ ! -e {self.go} ]; do sleep 0.05; done")
        support.wait_for(self.began.exists)
        process.send_signal(signal.SIGTERM)
        self.go.touch()
        _, error = process.communicate(timeout=support.PATIENCE)
        self.assertEqual(process.returncode, 130, error)
        self.assertEqual(error.splitlines()[:2], [f"qzfi: freeze {self.data}: Cancelled (1035)",
                                                  "  and afterwards: The post command failed (1031)"])
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


if __name__ == "__main__":
    support.main()
