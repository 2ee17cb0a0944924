"""qzfi diff, restore and the stores that they look into, by other names and in other places than the originals."""
import os
import shutil
import unittest

import support
from support import ToolTest


class Elsewhere(ToolTest):
    def setUp(self):
        super().setUp()
        self.identity = self.freeze()
        self.copy = self.folder / "copy"

    def test_a_dry_run_lists_what_would_be_made_and_makes_nothing(self):
        plan = self.succeed("restore", self.identity, "--store", self.store, "--to", self.copy, "--dry-run")
        self.assertFalse(self.copy.exists())
        self.assertEqual(len(plan.splitlines()), 4, plan)
        self.assertTrue(all(line.startswith(f"{self.copy}") for line in plan.splitlines()), plan)
        document = self.json("restore", self.identity, "--store", self.store, "--to", self.copy, "--dry-run")
        self.assertEqual((document["to"], document["dry_run"], document["report"]["remarks"]),
                         (str(self.copy), True, 4))
        self.assertFalse(self.copy.exists())

    def test_a_restored_folder_is_compared_with_its_image(self):
        self.succeed("restore", self.identity, "--store", self.store, "--to", self.copy)
        arguments = ("diff", self.identity, self.copy, "--store", self.store)
        self.assertEqual(self.succeed(*arguments, "--digest", "--exit-code"), "")
        (self.copy / "file").write_text("other content\n")
        (self.copy / "folder" / "other").unlink()
        document = self.json(*arguments)
        self.assertEqual((document["to"], document["directory"], document["within"]), (None, str(self.copy), None))
        changes = {(entry["change"], entry["path"]) for entry in document["entries"]}
        self.assertLessEqual({("content", "file"), ("removed", "folder/other")}, changes)
        self.assertEqual(self.succeed("diff", self.identity, "--store", self.store), "", "the original is as it was")
        self.assertEqual(support.qzfi(*arguments, "--exit-code").code, 3)
        lines = self.succeed(*arguments).splitlines()
        self.assertIn(f"C {self.copy}/file", lines)
        self.assertIn(f"R {self.copy}/folder/other", lines)
        self.assertTrue(all(line[2:].startswith(str(self.copy)) for line in lines), lines)

    def test_what_is_no_directory_is_refused(self):
        error = self.fail_with(2, "diff", self.identity, "/etc/passwd", "--store", self.store)
        self.assertEqual(error, f"qzfi: compare image {self.identity} with /etc/passwd: it is no path of the image, which is of "
                                f"{self.data}, and no other directory: Not a directory\n")
        error = self.fail_with(2, "diff", self.identity, self.folder / "nix", "--store", self.store)
        self.assertIn("and no other directory: No such file or directory\n", error)

    def test_a_path_that_is_nowhere_is_no_path_without_differences(self):
        at = ("--store", self.store)
        error = self.fail_with(2, "diff", self.identity, self.data / "flie", *at)
        self.assertEqual(error, f"qzfi: compare image {self.identity} with {self.data}/flie: it is neither there nor in the "
                                "image\n")
        self.assertEqual(self.succeed("diff", self.identity, self.data / "file", *at), "")
        (self.data / "file").unlink()
        self.assertEqual(self.succeed("diff", self.identity, self.data / "file", *at), f"R {self.data}/file\n")

    def test_an_image_of_several_objects_is_not_taken_for_one(self):
        other = self.folder / "second"
        other.mkdir()
        identity = self.freeze(self.data, other, "--method", "copy", "--store", self.store)
        error = self.fail_with(2, "diff", identity, "/etc", "--store", self.store)
        self.assertEqual(error, f"qzfi: compare image {identity} with /etc: it is in none of the 2 objects, {self.data} "
                                f"and {other}; an image of several objects can be compared with its originals or "
                                "another image\n")

    def test_a_part_of_an_image_of_several_objects_comes_back_by_its_whole_path(self):
        other = self.folder / "data two"
        shutil.copytree(self.data, other)
        identity = self.freeze(self.data, other, "--method", "copy", "--store", self.store)
        at = ("--store", self.store)
        for command in ("restore", "resync"):
            for folder in (self.data, other):
                (folder / "file").write_text("changed\n")
                (folder / "folder" / "other").write_text("changed\n")
            error = self.fail_with(2, command, identity, "--only", "file", *at, "--yes")
            self.assertEqual(error, f"qzfi: find file in image {identity}: it has 2 objects, {self.data} and {other}: "
                                    "say which by --object, or give the original's whole path\n")
            error = self.fail_with(1, command, identity, "--only", "/etc/passwd", *at, "--yes")
            self.assertEqual(error, f"qzfi: find /etc/passwd in image {identity}: it is of {self.data} and {other}\n")
            self.assertEqual(self.succeed(command, identity, "--only", other / "file", *at, "--dry-run"),
                             f"{other}/file: would be replaced\n")
            self.assertEqual(self.succeed(command, identity, "--only", other / "file", *at, "--yes"),
                             f"{other}/file: 1 entry changed\n")
            document = self.json(command, identity, "--only", "folder", "--object", "2", *at, "--yes")
            self.assertEqual((document["object"], document["only"]), (str(other), "folder"))
            self.assertEqual((other / "file").read_text() + (other / "folder/other").read_text(), "content\nother\n")
            self.assertEqual((self.data / "file").read_text() + (self.data / "folder/other").read_text(),
                             "changed\nchanged\n")
            document = self.json(command, identity, "--object", "1", *at, "--yes")
            self.assertEqual((document["object"], document["only"]), (str(self.data), None))
            self.assertEqual(self.succeed("diff", identity, *at, "--exit-code"), "")

    def test_a_store_may_be_named_from_where_one_is(self):
        identity = self.succeed("freeze", "data", "--method", "copy", "--store", "new/store", cwd=self.folder)
        store = self.folder / "new" / "store"
        self.assertEqual(self.listed(store), [identity.strip()])
        self.assertEqual(self.json("list", "--store", "new/store", cwd=self.folder),
                         self.json("list", "--store", store, cwd="/"))


class AnyBytes(ToolTest):
    def test_names_of_any_bytes_come_back_as_they_were(self):
        names = {b"new\nline", b"\xff\xfe", b"tab\t", b"-dash", b"\x1b[31m", b" ", "\u00e4".encode(), b"q'\"\\$(x)"}
        folder = os.fsencode(self.data)
        for name in names:
            with open(os.path.join(folder, name), "wb") as file:
                file.write(name)
        identity = self.freeze()
        for name in names:
            os.unlink(os.path.join(folder, name))
        document = self.json("diff", identity, "--store", self.store)
        self.assertEqual(len([one for one in document["entries"] if one["change"] == "removed"]), len(names))
        plain = self.succeed("diff", identity, "--store", self.store)
        self.assertNotIn("\x1b", plain)
        self.assertEqual(len(plain.splitlines()), document["count"], "a line each, whatever the names hold")
        self.succeed("restore", identity, "--store", self.store, "--yes", "--quiet")
        for name in names:
            with open(os.path.join(folder, name), "rb") as file:
                self.assertEqual(file.read(), name)
        self.assertEqual(set(os.listdir(folder)), names | {b"file", b"folder"})


class OtherHost(ToolTest):
    def setUp(self):
        super().setUp()
        self.at = ("--store", self.store)
        self.ours = self.freeze()
        command = support.tool_command("freeze", self.data, "--method", "copy", *self.at)
        done = support.run(["unshare", "--uts", "sh", "-c", 'hostname elsewhere && exec "$@"', "sh", *command])
        if "unshare failed" in done.err or "hostname:" in done.err:
            self.skipTest("no host name of its own here: " + done.err)
        self.assertEqual(done.code, 0, str(done))
        self.theirs = done.out.strip()

    def test_its_newer_image_is_not_the_latest(self):
        self.assertEqual(self.json("show", "latest", *self.at)["id"], self.ours)
        self.succeed("rm", self.ours, *self.at, "--yes")
        error = self.fail_with(1, "restore", "latest", *self.at, "--yes")
        self.assertEqual(error, f"qzfi: find image latest: none was made on this host, {os.uname().nodename}; the newest is "
                                f"{self.theirs} of host elsewhere: name it\n")

    def test_its_image_does_not_count_for_ours(self):
        document = self.json("prune", "--keep-last", "1", *self.at, "--yes")
        self.assertEqual([(one["id"], one["host"], one["action"]) for one in document["images"]],
                         [(self.ours, os.uname().nodename, "keep"), (self.theirs, "elsewhere", "keep")])
        self.assertEqual(self.listed(), [self.ours, self.theirs])
        self.assertRegex(self.succeed("prune", "--keep-last", "1", *self.at, "--dry-run"),
                         f"REASON +HOST +OBJECTS\n(.*\n)?{self.theirs} .* elsewhere +{self.data}\n")

    def test_it_is_named(self):
        table = self.succeed("list", *self.at)
        self.assertRegex(table, "^ID +TIME +HOST +METHOD ")
        self.assertRegex(table, f"{self.theirs} .* elsewhere +copy ")
        for command in ("restore", "rm"):
            error = self.fail_with(2, command, self.theirs, *self.at)
            self.assertRegex(error, f" image {self.theirs} of {support.LOCAL_TIME} of host elsewhere[,?]")
            self.assertNotIn("of host", self.fail_with(2, command, self.ours, *self.at))
        self.succeed("rm", self.theirs, *self.at, "--yes")
        self.assertNotIn("HOST", self.succeed("list", *self.at))


class Damage(ToolTest):
    def test_a_file_removed_from_the_image_is_told(self):
        identity = self.freeze()
        (self.store / "images" / identity / "objects/0/file").unlink()
        result = support.qzfi("verify", identity, "--store", self.store)
        self.assertEqual((result.code, result.err), (3, ""), str(result))
        self.assertIn(f"{identity}  damaged\n", result.out)
        self.assertIn(f"  {self.data}/file: ", result.out)

    def test_a_damaged_image_is_listed_and_can_be_removed(self):
        identity = self.freeze()
        support.run(["rm", "-rf", self.store / "images" / identity])
        image, = self.json("list", "--store", self.store)["images"]
        self.assertEqual((image["id"], image["state"]), (identity, "damaged"))
        error = self.fail_with(1, "restore", identity, "--store", self.store, "--yes")
        self.assertIn(f"image {identity}: The image is damaged (1032)\n", error)
        self.assertEqual((self.data / "file").read_text(), "content\n")
        self.succeed("rm", identity, "--store", self.store, "--yes")
        self.assertEqual(self.listed(), [])


class Quiet(ToolTest):
    def test_nothing_but_what_was_asked_for_is_printed(self):
        first, second = self.freeze(), self.freeze()
        for arguments in (("restore", first, "--yes"), ("resync", first, "--yes"), ("rm", first, "--yes"),
                          ("restore", second, "--to", self.folder / "there")):
            with self.subTest(arguments):
                self.assertEqual(self.succeed(*arguments, "--store", self.store, "--quiet"), "")
        self.assertEqual(self.listed(), [second])


if __name__ == "__main__":
    support.main()
