"""qzfi restore, resync, rm, prune, export and import: what changes originals, images and stores."""
import datetime
import os
import shutil
import unittest

import support
from support import Terminal, ToolTest, tool_command


class Restore(ToolTest):
    def change(self):
        (self.data / "file").write_text("changed\n")
        (self.data / "new").write_text("new")

    def test_nothing_is_replaced_without_a_terminal_or_yes(self):
        identity = self.freeze()
        self.change()
        for command in ("restore", "resync", "rm"):
            self.assertIn("say --yes", self.fail_with(2, command, identity, "--store", self.store))
        self.assertEqual((self.data / "file").read_text(), "changed\n")
        self.assertEqual(self.listed(), [identity])

    def test_the_answer_on_the_terminal_counts(self):
        identity = self.freeze()
        self.change()
        for answer, code, content in (("n\n", 1, "changed\n"), ("y\n", 0, "content\n")):
            with Terminal(tool_command("restore", identity, "--store", self.store)) as terminal:
                terminal.read_until(r"\[y/N\] ")
                terminal.send(answer)
                self.assertEqual(terminal.finish().code, code)
            self.assertEqual((self.data / "file").read_text(), content)
        self.assertFalse((self.data / "new").exists())

    def test_what_was_not_confirmed_is_named(self):
        first, second = self.freeze(), self.freeze()
        at = ("--store", self.store)
        for command, answer, text in (
                (("restore", first, *at), "n\n", f"restore {self.data} from image {first}: not confirmed, nothing was changed"),
                (("resync", first, *at), "\n", f"resync {self.data} from image {first}: not confirmed, nothing was changed"),
                (("rm", first, *at), "\x04", f"remove image {first}: not confirmed, nothing was removed"),
                (("rm", first, second, *at), "n\n",
                 f"remove images {first}, {second}: not confirmed, nothing was removed"),
                (("prune", "--keep-last", "1", *at), "n\n",
                 f"prune store {self.store}: not confirmed, nothing was removed")):
            with self.subTest(command), Terminal(tool_command(*command)) as terminal:
                terminal.read_until(r"\[y/N\] ")
                terminal.send(answer)
                result = terminal.finish()
                self.assertEqual(result.code, 1, str(result))
                self.assertTrue(result.out.endswith(f"\nqzfi: {text}\n"), str(result))
        self.assertEqual(self.listed(), [first, second])

    def test_what_was_typed_before_the_question_is_no_answer(self):
        identity = self.freeze()
        with Terminal(tool_command("rm", identity, "--store", self.store)) as terminal:
            terminal.send("y\n")
            terminal.read_until(r"\[y/N\] ")
            terminal.send("n\n")
            self.assertEqual(terminal.finish().code, 1)
        self.assertEqual(self.listed(), [identity])

    def test_whoever_stands_in_what_is_replaced_is_told(self):
        identity, at = self.freeze(), ("--store", self.store, "--yes")
        inside = self.data / "folder"
        told = "you are in a folder that was replaced: cd {} goes to the new one\n"
        for folder in (self.data, inside):
            result = support.qzfi("restore", identity, *at, cwd=folder)
            self.assertEqual((result.code, result.err), (0, told.format(folder)), str(result))
        for arguments, folder in ((("restore",), self.folder), (("resync",), inside), (("restore", "--quiet"), inside),
                                  (("restore", "--only", "file"), inside), (("restore", "--dry-run"), inside)):
            with self.subTest(arguments):
                result = support.qzfi(arguments[0], identity, *arguments[1:], *at, cwd=folder)
                self.assertEqual((result.code, result.err), (0, ""), str(result))

    def test_a_part_whose_folder_is_gone_comes_back_with_it(self):
        (self.data / "folder" / "deep").mkdir()
        (self.data / "folder" / "deep" / "file").write_text("deep")
        identity, at = self.freeze(), ("--store", self.store, "--yes")
        shutil.rmtree(self.data / "folder")
        for command in ("restore", "resync"):
            error = self.fail_with(1, command, identity, "--only", "folder/deep/file", *at)
            self.assertIn("\n  the folder it lies in is gone too: take back all of that by --only folder, or this alone "
                          "by `qzfi restore --to`, or `qzfi cat`\n", error)
        self.succeed("restore", identity, "--only", "folder/deep/file", "--to", self.folder / "alone", *at[:2])
        self.assertEqual((self.folder / "alone" / "file").read_text(), "deep")
        self.succeed("restore", identity, "--only", "./folder/", *at)
        self.assertEqual((self.data / "folder" / "deep" / "file").read_text(), "deep")

    def test_a_dot_in_a_path_says_nothing(self):
        identity, at = self.freeze(), ("--store", self.store)
        for path in ("./file", "././/file", f"{self.data}/./file", f"{self.data}//./file"):
            self.assertEqual(self.succeed("cat", identity, path, *at), "content\n")

    def test_data_is_compared_by_digests_where_asked_for(self):
        identity = self.freeze(self.data, "--method", "copy", "--digest", "--store", self.store)
        at, file = ("--store", self.store), self.data / "file"
        status = file.stat()
        for command in ("resync", "restore"):
            file.write_text("CONTENT\n")
            os.utime(file, ns=(status.st_atime_ns, status.st_mtime_ns))
            plan = self.succeed(command, identity, *at, "--dry-run", "--digest")
            self.assertEqual(plan.count(f"{file}: "), 1, plan)
            self.assertEqual(file.read_text(), "CONTENT\n")
            self.succeed(command, identity, *at, "--digest", "--yes")
            self.assertEqual(file.read_text(), "content\n", command)

    def test_a_dry_run_of_resync_changes_nothing(self):
        identity = self.freeze()
        self.change()
        plan = self.succeed("resync", identity, "--store", self.store, "--dry-run")
        self.assertIn(f"{self.data}/file: ", plan)
        self.assertIn(f"{self.data}/new: would be removed\n", plan)
        self.assertNotEqual((self.data / "file").read_text(), "content\n")
        self.assertTrue((self.data / "new").exists())

    def test_in_place_elsewhere_and_in_part(self):
        identity = self.freeze()
        self.change()
        plan = self.succeed("restore", identity, "--store", self.store, "--dry-run")
        self.assertIn(f"{self.data}/file: would be replaced\n", plan)
        self.assertIn(f"{self.data}/new: would be removed\n", plan)
        self.json("restore", identity, "--store", self.store, "--to", self.folder / "elsewhere")
        self.assertEqual((self.folder / "elsewhere/file").read_text(), "content\n")
        self.assertIn("(1036)", self.fail_with(1, "restore", identity, "--store", self.store, "--to",
                                               self.folder / "elsewhere"))
        self.json("resync", identity, "--store", self.store, "--only", "file", "--yes")
        self.assertEqual((self.data / "file").read_text(), "content\n")
        self.assertTrue((self.data / "new").exists())
        self.succeed("resync", identity, "--store", self.store, "--yes")
        self.assertFalse((self.data / "new").exists())


class Set(ToolTest):
    """Two objects on two file systems, frozen together, each into a store of its own file system."""

    def setUp(self):
        super().setUp()
        self.disks = [support.loop_filesystem("xfs", 320), support.loop_filesystem("btrfs")]
        self.objects = [disk / "data" for disk in self.disks]
        for number, folder in enumerate(self.objects):
            folder.mkdir()
            (folder / "file").write_text(f"content {number}\n")
        self.identity = self.freeze(*self.objects)
        self.images = self.json("show", self.identity)["images"]

    def change(self):
        for folder in self.objects:
            (folder / "file").write_text("changed\n")
            (folder / "new").write_text("new")

    def contents(self, folders):
        return [{path.name: path.read_text() for path in folder.iterdir()} for folder in folders]

    def test_it_is_brought_back_as_a_whole(self):
        frozen = self.contents(self.objects)
        self.assertEqual([image["method"] for image in self.images], ["reflink", "btrfs"])
        self.assertEqual({image["set"] for image in self.images}, {self.identity})
        for command in ("restore", "resync"):
            self.change()
            self.assertEqual(self.json("diff", self.identity)["count"] >= 4, True)
            out = self.succeed(command, self.identity, "--yes")
            self.assertRegex(out, f"^{self.objects[0]} and {self.objects[1]}: [0-9]+ entries changed\n$")
            self.assertEqual(self.contents(self.objects), frozen, command)
        self.assertEqual(self.succeed("diff", self.identity, "--exit-code"), "")
        self.succeed("verify", self.identity)

    def test_one_image_of_it_brings_back_its_own_object(self):
        frozen = self.contents(self.objects)
        self.change()
        self.succeed("restore", self.images[0]["id"], "--yes")
        contents = self.contents(self.objects)
        self.assertEqual(contents[0], frozen[0])
        self.assertEqual(contents[1]["file"], "changed\n")

    def test_what_was_replaced_before_a_failure_is_told(self):
        small = support.memory_filesystem("size=4m") / "data"
        small.mkdir()
        (small / "large").write_bytes(os.urandom(3 << 20))
        identity = self.freeze(self.data, small, "--method", "copy", "--store", self.store)
        (self.data / "file").write_text("changed\n")
        error = self.fail_with(1, "restore", identity, "--store", self.store, "--yes")
        self.assertRegex(error, "[Nn]o space left")
        self.assertTrue(error.endswith(f"\n  replaced before that: {self.data}; not: {small}\n"), error)
        self.assertEqual((self.data / "file").read_text(), "content\n")

    def test_a_part_of_it_comes_back_by_its_whole_path(self):
        self.change()
        self.assertIn("it has 2 objects", self.fail_with(2, "restore", self.identity, "--only", "file", "--yes"))
        self.succeed("restore", self.identity, "--only", self.objects[1] / "file", "--yes")
        self.succeed("resync", self.identity, "--only", self.objects[0] / "file", "--yes")
        self.assertEqual(self.contents(self.objects), [{"file": "content 0\n", "new": "new"},
                                                       {"file": "content 1\n", "new": "new"}])

    def test_it_goes_as_a_whole(self):
        self.assertEqual(self.succeed("rm", self.identity, "--yes"), f"removed {self.identity}\n")
        self.assertIn("(1024)", self.fail_with(1, "show", self.identity))
        for image, disk in zip(self.images, self.disks):
            self.assertEqual(image["store"], str(disk / ".qzfi"))
            self.assertEqual(os.listdir(disk / ".qzfi" / "images"), [])
        self.assertEqual([sorted(os.listdir(folder)) for folder in self.objects], [["file"], ["file"]])


class Remove(ToolTest):
    def test_of_several_each_is_named_before_they_go(self):
        ids = [self.freeze() for _ in range(2)]
        with Terminal(tool_command("rm", *ids, "--store", self.store), columns=200) as terminal:
            terminal.read_until(r"\[y/N\] ")
            terminal.send("n\n")
            self.assertEqual(terminal.finish().code, 1)
        text = self.stable(terminal.text())
        self.assertIn("Remove 2 images: ID of TIME, FOLDER/data; ID of TIME, FOLDER/data? [y/N] ", text)
        self.assertEqual(self.listed(), ids)

    def test_images_go_and_wrong_ids_remove_nothing(self):
        first, second = self.freeze(), self.freeze()
        self.fail_with(1, "rm", first, "20000101T000000Z-00000000", "--store", self.store, "--yes")
        self.assertEqual(self.listed(), [first, second])
        self.assertEqual(self.succeed("rm", first, first, "--store", self.store, "--yes"), f"removed {first}\n")
        self.assertEqual(self.listed(), [second])

    def test_pruning_keeps_what_the_rules_say(self):
        ids = [self.freeze() for _ in range(3)]
        self.fail_with(2, "prune", "--store", self.store, "--yes")
        document = self.json("prune", "--keep-last", "1", "--store", self.store, "--dry-run")
        self.assertEqual([one["action"] for one in document["images"]], ["remove", "remove", "keep"])
        self.assertEqual(self.listed(), ids)
        document = self.json("prune", "--keep-last", "1", "--store", self.store, "--yes")
        self.assertEqual([one["removed"] for one in document["images"]], [True, True, False])
        self.assertEqual(self.listed(), ids[2:])

    def test_each_rule_is_the_one_that_is_named(self):
        identity = self.freeze()
        time, = [image["time"] for image in self.json("list", "--store", self.store)["images"]]
        day = datetime.date.fromisoformat(time[:10])
        year, week, _ = day.isocalendar()
        reasons = {"last": "last 1", "daily": f"day {day}", "weekly": f"week {year}-W{week:02}",
                   "monthly": f"month {day:%Y-%m}"}
        for rule, reason in reasons.items():
            document = self.json("prune", f"--keep-{rule}", "2", "--store", self.store, "--dry-run")
            self.assertEqual([(one["id"], one["reasons"]) for one in document["images"]], [(identity, [reason])])

    def test_what_may_go_for_space_is_told(self):
        first, second = self.freeze(), self.freeze()
        document = self.json("prune", "--keep-free", "100", "--store", self.store, "--dry-run", "--quiet")
        self.assertEqual([(one["id"], one["may_go_for_space"]) for one in document["images"]],
                         [(first, True), (second, False)])

    def test_rules_that_keep_nothing_prune_nothing(self):
        ids = [self.freeze() for _ in range(2)]
        for rules in (("--keep-last", "0"), ("--keep-daily", "0", "--keep-monthly", "0", "--keep-free", "1")):
            error = self.fail_with(2, "prune", *rules, "--store", self.store, "--yes")
            self.assertEqual(error, "qzfi: prune: rules of 0 keep nothing; what is to go is named to `qzfi rm`\n")
        self.assertEqual(self.listed(), ids)
        document = self.json("prune", "--keep-last", "1", "--keep-daily", "0", "--store", self.store, "--yes")
        self.assertEqual([one["removed"] for one in document["images"]], [True, False])

    def test_an_object_that_cannot_be_looked_at_prunes_nothing(self):
        ids = [self.freeze() for _ in range(2)]
        loop = self.folder / "loop"
        loop.symlink_to("loop")
        error = self.fail_with(1, "prune", "--object", loop, "--keep-last", "1", "--store", self.store, "--yes")
        self.assertEqual(error, f"qzfi: look at {loop}: Too many levels of symbolic links\n")
        self.assertEqual(self.listed(), ids)

    def test_an_object_that_is_gone_is_known_by_its_path(self):
        other = self.folder / "other"
        other.mkdir()
        self.freeze(other, "--method", "copy", "--store", self.store)
        ids = [self.freeze() for _ in range(2)]
        shutil.rmtree(self.data)
        images = self.json("prune", "--object", f"{self.data}/", "--keep-last", "1", "--store", self.store,
                           "--dry-run")["images"]
        self.assertEqual([(one["id"], one["action"]) for one in images], [(ids[0], "remove"), (ids[1], "keep")])

    def test_an_image_goes_out_and_comes_back(self):
        identity = self.freeze()
        folder = self.folder / "out"
        self.assertEqual(self.succeed("export", identity, "--store", self.store, "--to", folder), f"{folder}\n")
        self.assertEqual(self.listed(), [])
        self.assertEqual(self.succeed("import", folder / "fiid.xml", "--store", self.store, "--verify"),
                         f"{identity}\n")
        self.assertEqual(self.listed(), [identity])
        self.assertFalse(folder.exists())


if __name__ == "__main__":
    support.main()
