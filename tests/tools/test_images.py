"""qzfi show, tree, path, cat, diff and verify: what is told of an image."""
import json
import os
import signal
import re
import shutil
import subprocess
import unittest

import support
from support import IMAGE_ID, ToolTest

ODD_NAME = b"bytes \xff\xfe\n'\\.txt"


class Show(ToolTest):
    def test_the_facts_objects_and_remarks(self):
        identity = self.freeze(self.data, "--method", "copy", "--store", self.store, "--label", "a label", "--digest")
        text = re.sub(r"(Host: +).*", r"\1HOST", self.stable(self.succeed("show", identity, "--store", self.store)))
        text = re.sub(r"made within [0-9.]+ m?s", "made within DURATION", text)
        text = re.sub(r"(OBJECT +PATH) +FROZEN AT", r"\1 FROZEN AT", text)
        self.assertEqual(text, """\
Image:       ID
Set:         ID
Label:       a label
State:       complete
Time:        TIME, made within DURATION
Method:      copy
Consistency: fuzzy
Holds:       4 entries, 14 B of data
Digests:     yes
Backup:      never
Host:        HOST
Store:       FOLDER/store

OBJECT  PATH FROZEN AT
     1  FOLDER/data  FOLDER/store/images/ID/objects/0

no remarks
""")

    def test_json_and_remarks(self):
        os.mkfifo(self.data / "pipe")
        fifo_free = self.freeze()
        document = self.json("show", fifo_free, "--store", self.store)
        self.assertEqual(document["id"], fifo_free)
        self.assertEqual(document["images"][0]["objects"][0]["path"], str(self.data))
        self.assertEqual(document["report"]["remarks"], len(document["report"]["items"]))
        self.assertEqual(document["images"][0]["remarks"], document["report"]["remarks"])

    def test_the_id_document_is_raw(self):
        identity = self.freeze()
        document = self.succeed("show", identity, "--store", self.store, "--fiid")
        self.assertEqual(document, (self.store / "images" / identity / "fiid.xml").read_text())

    def test_names_that_fit_no_image_or_several(self):
        first, second = self.freeze(), self.freeze()
        self.assertEqual(self.fail_with(1, "show", "20000101T000000Z-00000000", "--store", self.store),
                         "qzfi: find image 20000101T000000Z-00000000: No such image (1024) in store "
                         f"{self.store}\n")
        year = first[:4]
        self.assertEqual(self.fail_with(1, "show", year, "--store", self.store),
                         f"qzfi: find image {year}: 2 ids begin so: " + ", ".join(sorted([first, second])) + "\n")
        self.assertEqual(self.json("show", "latest", "--store", self.store)["images"][0]["id"], second)
        self.assertEqual(self.json("show", first[:-1], "--store", self.store)["id"], first)
        self.assertIn("(1024) in store", self.fail_with(1, "show", first[:3], "--store", self.store))
        self.assertIn("; a beginning has at least 4 characters\n",
                      self.fail_with(1, "show", first[:3], "--store", self.store))
        self.assertIn("; a path is written with a slash: ./data\n",
                      self.fail_with(1, "diff", first, "data", "--store", self.store, cwd=self.folder))
        self.assertIn("ID is required", self.fail_with(2, "show"))

    def test_an_image_whose_report_is_gone_is_shown_with_what_else_is_known(self):
        identity = self.freeze()
        (self.store / "images" / identity / "report").unlink()
        for options in ((), ("--json",)):
            result = support.qzfi("show", identity, "--store", self.store, *options)
            self.assertEqual(result.code, 1, str(result))
            self.assertEqual(result.err.splitlines()[0],
                             f"qzfi: read the report of image {identity}: The image is damaged (1032)")
            self.assertIn(f"{self.store}/images/{identity}/objects/0", result.out)
        document = json.loads(result.out)
        self.check_schema(document, "show")
        self.assertIsNone(document["report"])

    def test_an_image_whose_files_are_gone_is_shown_damaged(self):
        identity = self.freeze()
        support.run(["rm", "-rf", self.store / "images" / identity])
        document = self.json("show", identity, "--store", self.store)
        self.assertEqual((document["images"][0]["state"], document["report"]), ("damaged", None))
        self.assertIn("its report is not there any more", self.succeed("show", identity, "--store", self.store))


class LongLabel(ToolTest):
    def test_it_is_shortened_in_the_list_and_whole_elsewhere(self):
        label = "from here " + "on and " * 700 + "to there"
        identity = self.freeze(self.data, "--method", "copy", "--store", self.store, "--label", label)
        title, line = self.succeed("list", "--store", self.store).splitlines()
        shown = line[title.index("LABEL"):title.index("OBJECTS")]
        self.assertRegex(shown, r"^from here .*\.\.\..* to there  $")
        self.assertEqual(len(shown), 64 + 2)
        self.assertTrue(line.endswith(f"  {self.data}"))
        self.assertIn(f" {label}\n", self.succeed("show", identity, "--store", self.store))
        self.assertEqual(self.json("list", "--store", self.store)["images"][0]["label"], label)


class Tree(ToolTest):
    def test_the_tree_is_drawn_with_its_arrow(self):
        identity = self.freeze()
        text = self.stable(self.succeed("tree", identity, "--store", self.store))
        first, filesystem, *rest = text.splitlines()
        self.assertEqual(first, "ID")
        self.assertRegex(filesystem, r"^└── /.* \([a-z0-9]+\)  image ID by copy, fuzzy$")
        self.assertEqual(rest, ["    └── FOLDER/data", "        ──▶ FOLDER/store/images/ID/objects/0"])
        plain = self.succeed("tree", identity, "--store", self.store, env=support.environment(LC_ALL="C", LANG="C"))
        self.assertTrue(plain.isascii(), plain)
        self.assertIn("        --> ", plain)

    def test_no_arrow_leads_to_an_image_that_is_gone(self):
        identity = self.freeze()
        shutil.rmtree(self.store / "images" / identity)
        for command in ("tree", "path"):
            for form in ((), ("--json",)):
                error = self.fail_with(1, command, identity, "--store", self.store, *form)
                self.assertEqual(error.splitlines()[0],
                                 f"qzfi: find {self.data} in image {identity}: The image is damaged (1032)", command)

    def test_a_set_over_two_file_systems(self):
        memory = support.memory_filesystem("size=1m")
        (memory / "here").write_text("in memory")
        identity = self.freeze(self.data, memory, "--method", "copy", "--store", self.store)
        document = self.json("tree", identity, "--store", self.store)
        self.assertEqual(document["id"], identity)
        self.assertEqual([[one["path"] for one in node["objects"]] for node in document["filesystems"]],
                         [[str(self.data)], [str(memory)]])
        self.assertEqual(document["filesystems"][1]["type"], "tmpfs")
        self.assertEqual(len(self.json("show", identity, "--store", self.store)["images"]), 2)
        paths = self.succeed("path", identity, "--store", self.store).splitlines()
        self.assertEqual([sorted(os.listdir(path)) for path in paths], [["file", "folder"], ["here"]])
        self.assertEqual(self.succeed("path", identity, "--object", "2", "--store", self.store), paths[1] + "\n")
        self.assertEqual(self.succeed("cat", identity, memory / "here", "--store", self.store), "in memory")
        self.assertEqual(self.succeed("cat", identity, "here", "--object", "2", "--store", self.store), "in memory")
        self.assertEqual(self.fail_with(2, "cat", identity, "here", "--store", self.store),
                         f"qzfi: find here in image {identity}: it has 2 objects, {self.data} and {memory}: say which "
                         "by --object, or give the original's whole path\n")
        self.assertEqual(self.fail_with(2, "path", identity, "--object", "3", "--store", self.store),
                         f"qzfi: find object 3 of image {identity}: it has 2 objects\n")


class PathAndCat(ToolTest):
    def setUp(self):
        super().setUp()
        self.large = os.urandom(3 * 1024 * 1024 + 7)
        (self.data / "large").write_bytes(self.large)
        (self.data / "empty").touch()
        with open(os.path.join(os.fsencode(self.data), ODD_NAME), "wb") as file:
            file.write(b"odd")
        (self.data / "link").symlink_to("folder/other")
        (self.data / "outside").symlink_to("../../../../../../../../etc/passwd")
        (self.data / "absolute").symlink_to("/etc/passwd")
        os.mkfifo(self.data / "pipe")
        self.identity = self.freeze()

    def cat(self, name):
        command = support.tool_command("cat", self.identity, "--store", self.store)
        return subprocess.run([*command, name], env=support.environment(), capture_output=True, check=False)

    def test_paths_are_printed_as_they_are(self):
        image = self.store / "images" / self.identity / "objects" / "0"
        self.assertEqual(self.succeed("path", self.identity, "--store", self.store), f"{image}\n")
        self.assertEqual(self.succeed("path", self.identity, "folder/other", "--store", self.store),
                         f"{image}/folder/other\n")
        self.assertEqual(self.succeed("path", self.identity, self.data / "folder", "--store", self.store),
                         f"{image}/folder\n")
        odd = os.fsdecode(ODD_NAME)
        self.assertEqual(self.succeed("path", self.identity, "-0", "--store", self.store).split("\0"),
                         [str(image), ""])
        result = support.qzfi("path", self.identity, odd, "--store", self.store)
        self.assertEqual((result.code, result.out), (0, f"{image}/{odd}\n"), str(result))
        self.assertIn("No such file or directory", self.fail_with(1, "path", self.identity, "nix", "--store",
                                                                  self.store))
        self.assertEqual(self.fail_with(1, "path", self.identity, "/etc", "--store", self.store),
                         f"qzfi: find /etc in image {self.identity}: it is of {self.data}\n")

    def test_json_is_as_its_schema_says(self):
        image = str(self.store / "images" / self.identity / "objects" / "0")
        self.assertEqual(self.json("path", self.identity, "--store", self.store),
                         {"id": self.identity, "paths": [{"path": str(self.data), "image_path": image}]})
        place, = self.json("path", self.identity, "folder/other", "--store", self.store)["paths"]
        self.assertEqual(place, {"path": f"{self.data}/folder/other", "image_path": f"{image}/folder/other"})
        self.fail_with(2, "path", self.identity, "--json", "--null", "--store", self.store)

    def test_the_bytes_of_files_of_any_length_and_name(self):
        for name, content in (("large", self.large), ("empty", b""), (ODD_NAME, b"odd"), ("link", b"other\n"),
                              (os.fsencode(self.data) + b"/file", b"content\n"), ("./folder//other", b"other\n")):
            done = self.cat(name)
            self.assertEqual((done.returncode, done.stderr), (0, b""), name)
            self.assertTrue(done.stdout == content, f"{name!r}: {len(done.stdout)} bytes")

    def test_nothing_outside_of_the_image_is_read(self):
        for name in ("outside", "absolute", "../../fiid.xml", "folder/../../../report"):
            done = self.cat(name)
            self.assertEqual((done.returncode, done.stdout), (1, b""), name)
            self.assertIn(b": it leads out of the image\n", done.stderr)
        for name, cause in (("folder", "Is a directory"), ("file/below", "Not a directory"),
                            ("nix", "No such file or directory"), ("pipe", "it is no file")):
            self.assertEqual(self.fail_with(1, "cat", self.identity, name, "--store", self.store),
                             f"qzfi: read {self.data}/{name} in image {self.identity}: {cause}\n")

    def test_what_cannot_be_written_is_told(self):
        with open("/dev/full", "wb") as full:
            process = support.start("cat", self.identity, "large", "--store", self.store, stdout=full)
            self.assertEqual(process.communicate()[1], "qzfi: write to standard output: No space left on device\n")
        self.assertEqual(process.returncode, 1)
        reader, writer = os.pipe()
        os.close(reader)
        process = support.start("cat", self.identity, "large", "--store", self.store, stdout=writer)
        os.close(writer)
        self.assertEqual(process.communicate()[1], "")
        self.assertEqual(process.returncode, -signal.SIGPIPE)


class DiffAndVerify(ToolTest):
    def change(self):
        (self.data / "file").write_text("other content\n")
        (self.data / "new\x1b").write_text("new")
        (self.data / "folder" / "other").unlink()
        (self.data / "folder").chmod(0o700)
        (self.data / "type").rmdir()
        (self.data / "type").write_text("")

    def setUp(self):
        super().setUp()
        (self.data / "type").mkdir()

    def test_each_change_has_its_letter(self):
        identity = self.freeze()
        self.assertEqual(self.succeed("diff", identity, "--store", self.store, "--exit-code"), "")
        self.change()
        lines = self.succeed("diff", identity, "--store", self.store)
        expected = (f"C {self.data}\n" if f"C {self.data}\n" in lines else "") + f"""\
C {self.data}/file
M {self.data}/folder
R {self.data}/folder/other
A {self.data}/new\\x1b
T {self.data}/type
"""
        self.assertEqual(lines, expected)
        result = support.qzfi("diff", identity, "--store", self.store, "--exit-code")
        self.assertEqual((result.code, result.out), (3, expected))
        second = self.freeze()
        self.assertEqual(self.succeed("diff", identity, second, "--store", self.store), expected)
        self.assertEqual(self.succeed("diff", second, "--store", self.store, "--exit-code"), "")
        document = self.json("diff", identity, second, "--store", self.store)
        self.assertEqual((document["from"], document["to"], document["count"]),
                         (identity, second, len(expected.splitlines())))
        entry = [one for one in document["entries"] if one["path"] == "file"][0]
        self.assertEqual(entry, {"change": "content", "type": "file", "object": str(self.data), "path": "file",
                                 "old_size": 8, "new_size": 14})

    def test_a_path_narrows_it(self):
        identity = self.freeze()
        self.change()
        self.assertEqual(self.succeed("diff", identity, self.data / "folder", "--store", self.store),
                         f"M {self.data}/folder\nR {self.data}/folder/other\n")
        self.assertEqual(self.succeed("diff", identity, "./folder/other", "--store", self.store, cwd=self.data),
                         f"R {self.data}/folder/other\n")
        self.assertEqual(self.json("diff", identity, self.data / "type", "--store", self.store)["within"],
                         str(self.data / "type"))

    def test_data_is_compared_where_asked_for(self):
        identity = self.freeze()
        before = os.stat(self.data / "file")
        with open(self.data / "file", "r+b") as file:
            file.write(b"C")
        os.utime(self.data / "file", ns=(before.st_atime_ns, before.st_mtime_ns))
        self.assertEqual(self.succeed("diff", identity, "--store", self.store), "")
        self.assertEqual(self.succeed("diff", identity, "--store", self.store, "--digest"), f"C {self.data}/file\n")

    def test_sound_images_are_told_as_such(self):
        identity = self.freeze()
        self.assertEqual(self.succeed("verify", identity, "--store", self.store),
                         f"{identity}  sound, 5 entries, 14 B\n")
        self.assertEqual(self.json("verify", "--all", "--store", self.store)["images"][0]["verdict"], "sound")
        self.assertEqual(self.fail_with(2, "verify", "--store", self.store), "qzfi: verify: name an image, or say "
                                                                             "--all\n")

    def test_damage_is_listed_and_ends_with_3(self):
        sound, damaged, gone = self.freeze(), self.freeze(), self.freeze()
        (self.store / "images" / damaged / "objects/0/file").write_text("x")
        support.run(["rm", "-rf", self.store / "images" / gone])
        result = support.qzfi("verify", "--all", "--store", self.store)
        self.assertEqual((result.code, result.err), (3, ""), str(result))
        self.assertEqual(result.out, f"""\
{sound}  sound, 5 entries, 14 B
{damaged}  damaged
  {self.data}/file: other content
{gone}  damaged
  The image is damaged (1032)
  qzfi_objctl: image {gone} is damaged: {self.store}/images/{gone}: No such file or directory (2)
""")
        result = support.qzfi("verify", "--all", "--json", "--store", self.store)
        document = json.loads(result.out)
        self.check_schema(document, "verify")
        self.assertEqual([one["verdict"] for one in document["images"]], ["sound", "damaged", "damaged"])

    def test_a_missing_manifest_is_damage(self):
        for options in ((), ("--digest",)):
            with self.subTest(options):
                identity = self.freeze(self.data, "--method", "copy", "--store", self.store, *options)
                (self.store / "images" / identity / "manifest.0").unlink()
                result = support.qzfi("verify", identity, "--store", self.store)
                self.assertEqual((result.code, result.err), (3, ""), str(result))
                self.assertEqual(result.out, f"""\
{identity}  damaged
  The image is damaged (1032)
  qzfi_objctl: image {identity} is damaged: manifest.0: No such file or directory (2)
""")

    @unittest.skipIf(os.geteuid() != 0, "only root can become a user who may not read")
    def test_an_image_that_may_not_be_read_is_told_as_a_failure(self):
        identity = self.freeze()
        for folder in (support.scratch(), self.folder, self.store, self.store / "images"):
            folder.chmod(0o755)
        (self.store / "catalog.db").chmod(0o644)
        (self.store / "images" / identity).chmod(0o700)
        result = support.qzfi("verify", identity, "--store", self.store, user=65534, group=65534, extra_groups=[])
        self.assertEqual((result.code, result.out), (1, f"{identity}  not verified\n"), str(result))
        self.assertEqual(result.err, f"qzfi: verify image {identity}: Not permitted (1041)\n"
                                     f"  qzfi_objctl: no right to open {self.store}/images/{identity}\n")


if __name__ == "__main__":
    support.main()
