"""The images' life on Btrfs and by reflinks, on read-only and on full file systems."""
import os
import unittest

import support
from support import ToolTest


class Life(ToolTest):
    def live(self, mount_point, method):
        volume, store = mount_point / "volume", mount_point / "store"
        made = (["btrfs", "subvolume", "create", volume] if method == "btrfs" else ["mkdir", volume])
        self.assertEqual(support.run(made).code, 0)
        data = volume / "data"  # the root of a subvolume cannot be exchanged
        data.mkdir()
        (data / "file").write_text("content\n")
        at = ("--store", store)
        identity = self.freeze(data, "--method", method, "--digest", *at)
        self.assertEqual(self.succeed("diff", identity, *at, "--digest", "--exit-code"), "")
        for command in ("restore", "resync"):
            (data / "file").write_text("changed\n")
            (data / "new").write_text("new")
            self.assertIn(f"C {data}/file\nA {data}/new\n", self.succeed("diff", identity, *at))
            document = self.json(command, identity, "--yes", *at)
            self.assertEqual(document["id"], identity)
            self.assertEqual(((data / "file").read_text(), os.listdir(data)), ("content\n", ["file"]), command)
        self.assertEqual(self.json("verify", identity, *at)["images"][0]["verdict"], "sound")
        out = mount_point / "out"
        self.assertEqual(self.succeed("export", identity, "--to", out, *at), f"{out}\n")
        self.assertEqual(self.listed(store), [])
        self.assertEqual(self.succeed("import", out, "--verify", *at), f"{identity}\n")
        self.assertEqual((self.listed(store), out.exists()), ([identity], False))
        self.assertEqual(self.succeed("cat", identity, "file", *at), "content\n")
        self.assertEqual(self.succeed("rm", identity, "--yes", *at), f"removed {identity}\n")
        self.assertEqual((self.listed(store), os.listdir(store / "images")), ([], []))

    def test_on_btrfs(self):
        self.live(support.loop_filesystem("btrfs"), "btrfs")

    def test_by_reflinks(self):
        self.live(support.loop_filesystem("xfs", 320), "reflink")


class ReadOnly(ToolTest):
    def test_images_can_be_read_and_not_removed(self):
        mount_point = support.memory_filesystem("size=16m")
        store = mount_point / "store"
        identity = self.freeze(self.data, "--method", "copy", "--store", store)
        self.assertEqual(support.run(["mount", "-o", "remount,ro", mount_point]).code, 0)
        self.assertEqual(self.listed(store), [identity])
        self.assertEqual(self.json("show", identity, "--store", store)["id"], identity)
        path = self.succeed("path", identity, "file", "--store", store).rstrip("\n")
        with open(path, encoding="utf-8") as file:
            self.assertEqual(file.read(), "content\n")
        self.assertEqual(self.succeed("cat", identity, "file", "--store", store), "content\n")
        for command in (["rm", identity, "--yes"], ["export", identity, "--to", self.folder / "out"]):
            with self.subTest(command[0]):
                error = self.fail_with(1, *command, "--store", store)
                self.assertIn(f": no right to write to store {store}: Read-only file system (30)\n", error)
        self.assertFalse((self.folder / "out").exists(), "nothing is copied that cannot be moved")
        self.assertEqual(self.listed(store), [identity])


class Full(ToolTest):
    def setUp(self):
        super().setUp()
        (self.data / "large").write_bytes(os.urandom(8 << 20))
        self.identity = self.freeze()
        self.small = support.memory_filesystem("size=4m")

    def test_what_does_not_fit_leaves_nothing_and_harms_nothing(self):
        for command in ("export", "restore"):
            with self.subTest(command):
                error = self.fail_with(1, command, self.identity, "--to", self.small / "out", "--store", self.store)
                self.assertIn(f"qzfi: {command} ", error)
                self.assertRegex(error, "[Nn]o space left")
                self.assertEqual(os.listdir(self.small), [])
        self.assertEqual(self.json("verify", self.identity, "--store", self.store)["images"][0]["verdict"], "sound")

    def test_pruning_for_space_on_a_full_disk_keeps_the_newest(self):
        mount_point = support.loop_filesystem("ext4", 32)
        store = mount_point / "store"
        ids = [self.freeze(self.data, "--method", "copy", "--store", store) for _ in range(2)]
        with open(mount_point / "filler", "wb", buffering=0) as filler:
            with self.assertRaises(OSError):
                while True:
                    filler.write(bytes(65536))
        document = self.json("prune", "--keep-free", "15", "--store", store, "--yes")
        self.assertEqual([one["removed"] for one in document["images"]], [True, False])
        self.assertTrue(document["stores"][0]["reached"])
        self.assertEqual(self.listed(store), ids[1:])


if __name__ == "__main__":
    support.main()
