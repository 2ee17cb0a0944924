"""Signals during restores, and two restores to one place."""
import os
import signal
import unittest

import support
from support import ToolTest

COUNT = 12000


class Restoring(ToolTest):
    """The original has the new content in each file, the image the old one."""

    def setUp(self):
        super().setUp()
        for number in range(COUNT):
            (self.data / f"file-{number}").write_text("old")
        self.identity = self.freeze()
        for number in range(COUNT):
            (self.data / f"file-{number}").write_text("changed")
        self.outside = set(os.listdir(self.folder))

    def contents(self, folder=None):
        return {path.read_text() for path in (folder or self.data).glob("file-*")}

    def has_begun(self):
        """What is half-made is beside the original, under a name that was not there before."""
        new = set(os.listdir(self.folder)) - self.outside
        return any(any((self.folder / name).rglob("file-*")) for name in new)

    def end_by_ctrl_c(self, *arguments, begun=None):
        with support.Terminal(support.tool_command(*arguments, "--store", self.store, "--workers", "1")) as terminal:
            support.wait_for(begun or self.has_begun, "the copying")
            terminal.send("\x03")
            return terminal.finish()

    def end_by_sigterm(self, *arguments, begun=None):
        process = support.start(*arguments, "--store", self.store, "--workers", "1")
        support.wait_for(begun or self.has_begun, "the copying")
        process.send_signal(signal.SIGTERM)
        out, error = process.communicate(timeout=support.PATIENCE)
        return support.Result(arguments, process.returncode, out, error)

    def assert_original_is_whole(self, content="changed"):
        self.assertEqual(self.contents(), {content})
        self.assertEqual(len(os.listdir(self.data)), COUNT + 2)
        self.assertEqual(set(os.listdir(self.folder)), self.outside, "nothing half-made stays")

    def test_in_place_the_original_stays_as_it_was(self):
        result = self.end_by_ctrl_c("restore", self.identity, "--yes")
        self.assertEqual(result.code, 130, str(result))
        self.assert_original_is_whole()

    def test_elsewhere_no_folder_is_left(self):
        result = self.end_by_sigterm("restore", self.identity, "--to", self.folder / "there")
        self.assertEqual(result.code, 130, str(result))
        self.assert_original_is_whole()

    def test_of_two_restores_to_one_place_one_makes_it(self):
        there = self.folder / "there"
        arguments = ("restore", self.identity, "--store", self.store, "--to", there)
        processes = [support.start(*arguments) for _ in range(2)]
        results = [process.communicate(timeout=support.PATIENCE) for process in processes]
        self.assertEqual(sorted(process.returncode for process in processes), [0, 1], results)
        # In use while the other one runs; there, when it has ended.
        self.assertRegex("".join(error for _, error in results), r" \((1034|1036)\)\n")
        self.assertEqual(self.contents(there), {"old"})
        self.assertEqual(len(os.listdir(there)), COUNT + 2)
        self.assertEqual(set(os.listdir(self.folder)), self.outside | {"there"})


if __name__ == "__main__":
    support.main()
