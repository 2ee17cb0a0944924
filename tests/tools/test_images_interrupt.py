"""Signals during restores, and two restores to one place."""
import os
import signal
import unittest

import support
from support import ToolTest

COUNT = 40000


class Restoring(ToolTest):
    """The original has the new content in each file, the image the old one."""

    def setUp(self):
        super().setUp()
        # In memory: thousands of files wait for a disk's journal.
        self.folder = support.memory_filesystem("size=2g")
        self.data, self.store = self.folder / "data", self.folder / "store"
        self.data.mkdir()
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
        self.assertEqual(len(os.listdir(self.data)), COUNT)
        self.assertEqual(set(os.listdir(self.folder)), self.outside, "nothing half-made stays")

    def test_in_place_the_original_stays_as_it_was(self):
        for end in (self.end_by_ctrl_c, self.end_by_sigterm):
            with self.subTest(end.__name__):
                result = end("restore", self.identity, "--yes")
                self.assertEqual(result.code, 130, str(result))
                self.assertIn(f"qzfi: restore {self.data} from image {self.identity}: Cancelled (1035)\n",
                              result.out + result.err)
                self.assert_original_is_whole()

    def test_elsewhere_no_folder_is_left(self):
        for end in (self.end_by_ctrl_c, self.end_by_sigterm):
            with self.subTest(end.__name__):
                result = end("restore", self.identity, "--to", self.folder / "there")
                self.assertEqual(result.code, 130, str(result))
                self.assert_original_is_whole()

    def test_a_resync_that_was_ended_is_made_up_for_by_the_next(self):
        for path in self.data.glob("file-*"):
            path.unlink()
        result = self.end_by_sigterm("resync", self.identity, "--yes", begun=lambda: any(self.data.glob("file-*")))
        self.assertEqual(result.code, 130, str(result))
        self.assertLess(len(os.listdir(self.data)), COUNT)
        self.assertEqual(set(os.listdir(self.folder)), self.outside)
        self.succeed("resync", self.identity, "--yes", "--store", self.store)
        self.assert_original_is_whole("old")

    def test_an_image_that_is_being_restored_stays(self):
        there = self.folder / "there"
        restoring = support.start("restore", self.identity, "--store", self.store, "--to", there, "--workers", "1")
        support.wait_for(self.has_begun, "the copying")
        error = self.fail_with(1, "rm", self.identity, "--yes", "--store", self.store)
        self.assertEqual(error.splitlines()[0],
                         f"qzfi: remove image {self.identity}: In use by another operation (1034)")
        _, error = restoring.communicate(timeout=support.PATIENCE)
        self.assertEqual(restoring.returncode, 0, error)
        self.assertEqual(self.contents(there), {"old"})
        self.assertEqual(self.listed(self.store), [self.identity])

    def test_of_two_restores_to_one_place_one_makes_it(self):
        there = self.folder / "there"
        arguments = ("restore", self.identity, "--store", self.store, "--to", there)
        processes = [support.start(*arguments) for _ in range(2)]
        results = [process.communicate(timeout=support.PATIENCE) for process in processes]
        self.assertEqual(sorted(process.returncode for process in processes), [0, 1], results)
        # In use while the other one runs; there, when it has ended.
        self.assertRegex("".join(error for _, error in results), r" \((1034|1036)\)\n")
        self.assertEqual(self.contents(there), {"old"})
        self.assertEqual(len(os.listdir(there)), COUNT)
        self.assertEqual(set(os.listdir(self.folder)), self.outside | {"there"})


if __name__ == "__main__":
    support.main()
