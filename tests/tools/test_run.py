"""qzfi run. Each command costs two seconds, so the file stands alone."""
import os
import pathlib
import signal
import unittest

import support
from support import ToolTest


class Run(ToolTest):
    def test_output_error_output_and_exit_code_are_the_commands(self):
        result = support.qzfi("run", "--", "sh", "-c", "echo out; echo err >&2; exit 7")
        self.assertEqual((result.code, result.out, result.err), (7, "out\n", "err\n"), str(result))

    def test_one_word_is_for_the_shell_and_several_are_kept_apart(self):
        self.assertEqual(self.succeed("run", "echo a; echo 'b  c'"), "a\nb  c\n")
        self.assertEqual(self.succeed("run", "--", "printf", "<%s>", "a b", "$HOME", "'", "list", "--json"),
                         "<a b><$HOME><'><list><--json>")

    def test_more_than_a_pipe_holds_comes_whole(self):
        result = support.qzfi("run", "--", "seq", "200000")
        self.assertEqual(result.code, 0, str(result)[-500:])
        self.assertEqual(result.out, "".join(f"{number}\n" for number in range(1, 200001)))

    def test_it_has_nothing_to_read(self):
        self.assertEqual(self.succeed("run", "--", "cat", input="not read"), "")

    def test_what_stays_in_the_background_is_not_waited_for(self):
        pid = self.folder / "pid"
        self.succeed("run", f"sleep 1000 & echo $! >{pid}")
        os.kill(int(pid.read_text()), signal.SIGKILL)

    def test_an_end_by_a_signal_is_told(self):
        error = self.fail_with(1, "run", "kill -9 $$")
        self.assertIn("qzfi: run kill -9 $$: it was ended by a signal\n", error)

    def test_ctrl_c_ends_the_command(self):
        started = self.folder / "started"
        command = support.tool_command("run", f"echo $$ >{started}; sleep 1000")
        with support.Terminal(command) as terminal:
            pid = int(support.wait_for(lambda: started.exists() and started.read_text()))
            terminal.send("\x03")
            result = terminal.finish()
        self.assertEqual(result.code, 130, str(result))
        support.wait_for(lambda: not pathlib.Path(f"/proc/{pid}").exists(), "the command's end")

    def cleaning_up(self, begun, go_on):
        """A command that takes its time to clean up when it is interrupted, and ends with 5."""
        return (f"trap 'echo cleaning; until test -e {go_on}; do sleep 0.1; done; echo more; touch {self.folder}/done; "
                f"exit 5' INT TERM; touch {begun}; sleep 1000")

    def test_ctrl_c_lets_the_command_clean_up(self):
        begun, go_on, done = (self.folder / name for name in ("begun", "go_on", "done"))
        with support.Terminal(support.tool_command("run", self.cleaning_up(begun, go_on))) as terminal:
            support.wait_for(begun.exists)
            terminal.send("\x03")
            terminal.read_until("cleaning\n")
            go_on.touch()
            result = terminal.finish()
        self.assertEqual((result.code, result.out), (130, "^Ccleaning\nmore\n"), str(result))
        self.assertTrue(done.exists())

    def test_a_second_ctrl_c_does_not_wait(self):
        begun, go_on, done = (self.folder / name for name in ("begun", "go_on", "done"))
        with support.Terminal(support.tool_command("run", self.cleaning_up(begun, go_on))) as terminal:
            support.wait_for(begun.exists)
            terminal.send("\x03")
            terminal.read_until("cleaning\n")
            terminal.send("\x03")
            support.wait_for(lambda: terminal.process.poll() is not None, "the end")
            self.assertEqual(terminal.process.returncode, -signal.SIGINT)
            self.assertFalse(done.exists())
        go_on.touch()

    def test_a_signal_to_the_whole_group_lets_the_command_clean_up(self):
        begun, go_on, done = (self.folder / name for name in ("begun", "go_on", "done"))
        process = support.start("run", self.cleaning_up(begun, go_on))
        support.wait_for(begun.exists)
        os.killpg(process.pid, signal.SIGTERM)
        self.assertEqual(process.stdout.readline(), "cleaning\n")
        go_on.touch()
        output, error = process.communicate(timeout=support.PATIENCE)
        self.assertEqual((process.returncode, output.splitlines()[-1:]), (130, ["more"]), error)
        self.assertTrue(error.endswith("qzfi: run: interrupted\n"), error)
        self.assertTrue(done.exists())

    def test_a_signal_to_the_process_alone_ends_the_command(self):
        for number in (signal.SIGTERM, signal.SIGHUP, signal.SIGINT):
            with self.subTest(number):
                started, after = self.folder / f"started{number}", self.folder / f"after{number}"
                process = support.start("run", f"echo $$ >{started}; sleep 1000; touch {after}")
                pid = int(support.wait_for(lambda: started.exists() and started.read_text()))
                process.send_signal(number)
                _, error = process.communicate(timeout=support.PATIENCE)
                self.assertEqual(process.returncode, 130, error)
                self.assertTrue(error.endswith(": interrupted\n"), error)
                self.assertFalse(pathlib.Path(f"/proc/{pid}").exists(), "the command is gone before")
                self.assertFalse(after.exists())

    def test_a_signal_to_the_whole_group_ends_it_too(self):
        started = self.folder / "started"
        process = support.start("run", f"echo $$ >{started}; sleep 1000")
        pid = int(support.wait_for(lambda: started.exists() and started.read_text()))
        os.killpg(process.pid, signal.SIGTERM)
        _, error = process.communicate(timeout=support.PATIENCE)
        self.assertEqual(process.returncode, 130, error)
        support.wait_for(lambda: not pathlib.Path(f"/proc/{pid}").exists(), "the command's end")

    def test_a_reader_that_goes_away_ends_the_command_quietly(self):
        for number, restored in enumerate((True, False)):  # a caller that ignores SIGPIPE hands that on
            for words, end in ((("yes",), 141), (("sh", "-c", f"yes; touch {self.folder}/after{number}; exit 7"), 7)):
                with self.subTest(words, restored=restored):
                    process = support.start("run", "--", *words, restore_signals=restored)
                    self.assertEqual(process.stdout.readline(), "y\n")
                    process.stdout.close()
                    error = process.stderr.read()
                    process.stderr.close()
                    self.assertEqual((process.wait(support.PATIENCE), error), (end, ""))
            self.assertTrue((self.folder / f"after{number}").exists(), "only what writes is ended")

    def test_an_empty_command_is_refused(self):
        for command in ("", " ", "\t\n"):
            self.assertEqual(self.fail_with(2, "run", command), "qzfi: run: the command is empty\n")

    def test_closed_output_is_a_failure(self):
        with open("/dev/full", "w") as full:
            process = support.start("run", "echo a", stdout=full)
            _, error = process.communicate(timeout=support.PATIENCE)
        self.assertEqual((process.returncode, error),
                         (1, "qzfi: write to standard output: No space left on device\n"))


if __name__ == "__main__":
    support.main()
