"""Signals during restores, and two restores to one place."""
import json
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


class Documents(ToolTest):
    """A signal in the middle of many images: what was done before is told."""

    def setUp(self):
        super().setUp()
        self.folder = support.memory_filesystem("size=2g")
        self.data, self.store = self.folder / "data", self.folder / "store"
        self.data.mkdir()

    def fill(self, count):
        for number in range(count):
            (self.data / f"file-{number}").write_text("content")

    def test_prune_tells_what_it_removed(self):
        self.fill(3000)
        ids = [self.freeze() for _ in range(16)]
        process = support.start("prune", "--keep-last", "1", "--yes", "--json", "--store", self.store)
        support.wait_for(lambda: not (self.store / "images" / ids[0]).exists(), "the first removal")
        process.send_signal(signal.SIGTERM)
        out, error = process.communicate(timeout=support.PATIENCE)
        self.assertEqual(process.returncode, 130, error)
        self.assertRegex(error, rf"^qzfi: remove image {support.IMAGE_ID}: Cancelled \(1035\)\n$")
        document = json.loads(out)
        self.check_schema(document, "prune")
        self.assertEqual((document["dry_run"], document["interrupted"]), (False, True))
        self.assertEqual([one["id"] for one in document["images"]], ids)
        removed = [one["removed"] for one in document["images"]]
        self.assertTrue(removed[0])
        self.assertEqual(removed, sorted(removed, reverse=True), "from the oldest on")
        self.assertEqual(self.listed(), [identity for identity, gone in zip(ids, removed) if not gone])
        document = self.json("prune", "--keep-last", "1", "--yes", "--store", self.store)
        self.assertFalse(document["interrupted"])
        self.assertEqual(self.listed(), ids[-1:])

    def test_verify_tells_what_it_found(self):
        small = self.folder / "small"
        small.mkdir()
        first = self.freeze(small, "--method", "copy", "--store", self.store)
        self.fill(COUNT)
        self.freeze(self.data, "--method", "copy", "--store", self.store, "--digest")
        arguments = ("verify", "--all", "--json", "--store", self.store)
        with support.Terminal(support.tool_command(*arguments), columns=200) as terminal:
            terminal.read_until(rf"verify \[.*{self.data}")
            terminal.send("\x03")
            result = terminal.finish()
        self.assertEqual(result.code, 130, str(result))
        document, end = json.JSONDecoder().raw_decode(result.out[result.out.index("{"):])
        self.check_schema(document, "verify")
        self.assertTrue(document["interrupted"])
        self.assertEqual([(one["id"], one["verdict"]) for one in document["images"]], [(first, "sound")])
        self.assertIn(": Cancelled (1035)\n", result.out[end:])


if __name__ == "__main__":
    support.main()
