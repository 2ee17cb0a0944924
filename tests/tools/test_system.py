"""methods, repair, providers, nodes, errmsg and log."""
import contextlib
import json
import os
import re
import shutil
import sqlite3
import unittest

import support
from support import ToolTest


class Methods(ToolTest):
    def test_the_best_stands_first_and_the_rest_say_why_not(self):
        methods = self.json("methods", self.data, "--store", self.store)["methods"]
        self.assertEqual(sorted(method["method"] for method in methods), ["btrfs", "copy", "reflink"])
        self.assertTrue(methods[0]["can"] and methods[0]["best"])
        self.assertEqual([method["can"] for method in methods], [method["reason"] is None for method in methods])
        self.assertEqual(sum(method["best"] for method in methods), 1)
        self.assertEqual({method["store"] for method in methods}, {str(self.store)})

    def test_freeze_takes_the_one_that_is_told_to_be_best(self):
        mount_point = support.loop_filesystem("btrfs")
        data = mount_point / "data"
        data.mkdir()
        methods = self.json("methods", data)["methods"]
        self.assertEqual([(method["method"], method["can"], method["best"]) for method in methods],
                         [("btrfs", True, True), ("reflink", True, False), ("copy", True, False)])
        self.assertEqual(methods[0]["filesystem"], str(mount_point))
        self.assertEqual(methods[0]["type"], "btrfs")
        identity = self.freeze(data)
        image, = [image for image in self.json("list")["images"] if image["id"] == identity]
        self.assertEqual((image["method"], image["consistency"], image["store"]),
                         ("btrfs", methods[0]["consistency"], methods[0]["store"]))

    def test_every_file_system_has_a_best_one(self):
        other = support.memory_filesystem("size=4m")
        methods = self.json("methods", self.data, other)["methods"]
        best = [method["filesystem"] for method in methods if method["best"]]
        self.assertEqual(len(best), 2)
        self.assertIn(str(other), best)

    def test_the_table_has_a_line_for_each(self):
        lines = self.succeed("methods", self.data, "--store", self.store).splitlines()
        self.assertRegex(lines[0], "^METHOD +FILE SYSTEM +CAN +CONSISTENCY +COST +TIME +STORE +WHY NOT$")
        self.assertEqual(len(lines), 4)
        self.assertTrue(all(str(self.store) in line for line in lines[1:]))
        self.assertEqual(lines, [line.rstrip() for line in lines], "no blanks where the last column is empty")

    def test_what_is_not_there_is_told(self):
        error = self.fail_with(1, "methods", self.folder / "nowhere")
        self.assertIn(f"qzfi: look at {self.folder}/nowhere: ", error)


class Schemas(ToolTest):
    def undescribed(self, name, node):
        """Each schema, property and element that is a document of its own says what it is."""
        if "$ref" in node:
            return []
        found = [name] if not node.get("description") else []
        for key, value in node.get("properties", {}).items():
            found += self.undescribed(f"{name}/{key}", value)
        if "properties" in node.get("items", {}):
            found += self.undescribed(name + "[]", node["items"])
        return found

    def test_every_key_is_described(self):
        schemas = support.all_schemas()
        self.assertGreater(len(schemas), 15)
        self.assertEqual([one for name, schema in schemas.items() for one in self.undescribed(name, schema)], [])


class Repair(ToolTest):
    def half_made(self, identity="20200101T000000Z-00000000"):
        (self.store / "images" / (".new-" + identity)).mkdir()

    def test_debris_is_removed_and_images_stay(self):
        identity = self.freeze()
        self.half_made()
        self.assertEqual(self.succeed("repair", "--store", self.store), "1 half-made image was removed\n")
        self.assertEqual(self.listed(), [identity])
        self.assertEqual(os.listdir(self.store / "images"), [identity])
        self.assertEqual(self.succeed("repair", "--store", self.store), "no debris was removed\n")

    def test_json_is_as_its_schema_says(self):
        self.freeze()
        self.half_made()
        document = self.json("repair", "--store", self.store)
        self.assertEqual((document["removed"], document["damaged"]), (1, []))
        store, = document["stores"]
        self.assertEqual((store["path"], store["status"], store["images"], store["debris"]),
                         (str(self.store), 0, 1, 0))

    def test_damage_is_told_and_has_its_exit_code(self):
        identity = self.freeze()
        shutil.rmtree(self.store / "images" / identity)
        result = support.qzfi("repair", "--store", self.store)
        self.assertEqual((result.code, result.err), (3, ""), str(result))
        self.assertEqual(result.out, "no debris was removed\n"
                         f"damaged: image {identity} in store {self.store}: the image's files are missing; "
                         "`qzfi rm` forgets it\n")

    def test_images_that_a_catalog_from_a_backup_does_not_know_stay_and_are_taken_in_again(self):
        catalog, kept = self.store / "catalog.db", self.folder / "catalog.db"
        identities = [self.freeze()]
        shutil.copy(catalog, kept)
        identities += [self.freeze(), self.freeze()]
        catalog.unlink()
        error = self.fail_with(1, "freeze", self.data, "--store", self.store)
        self.assertIn("it holds images, and its catalog is gone: bring catalog.db back, or move images/ away", error)
        shutil.copy(kept, catalog)
        self.assertEqual(self.listed(), identities[:1])
        (self.store / "images" / identities[2] / "fiid.xml").unlink()
        found = support.qzfi("repair", "--store", self.store, "--json")
        document = json.loads(found.out)
        self.check_schema(document, "repair")
        self.assertEqual((found.code, document["taken_in"], [image["id"] for image in document["unknown"]]),
                         (3, 1, identities[2:]))
        self.assertEqual(sorted(self.listed()), sorted(identities[:2]))
        self.succeed("verify", identities[1])
        result = support.qzfi("repair", "--store", self.store)
        self.assertEqual((result.code, result.out),
                         (3, "no debris was removed\n"
                          f"unknown: image {identities[2]} in store {self.store}: the catalog does not know this image, "
                          "and it, or its set, is not whole: it stays\n"))

    def test_a_store_that_is_gone_for_good_is_forgotten(self):
        identity = self.freeze()
        self.assertIn(identity, [image["id"] for image in self.json("list")["images"]])
        self.assertEqual(self.succeed("repair", "--forget", "store", cwd=self.folder), "")
        self.assertNotIn(identity, [image["id"] for image in self.json("list")["images"]])
        self.assertEqual(self.listed(), [identity], "it is there as before")
        error = self.fail_with(1, "repair", "--forget", self.store)
        self.assertIn(f"qzfi: forget store {self.store}: ", error)
        self.assertIn(": it is not known\n", error)

    def test_an_image_that_waits_for_another_store_of_its_set_is_told_and_is_no_damage(self):
        identity, sister = self.freeze(), "20200101T000000Z-00000000"
        document = self.store / "images" / identity / "fiid.xml"
        image = re.search("  <image .*</image>\n", document.read_text(), re.DOTALL).group(0)
        other = image.replace(identity, sister).replace(f'store="{self.store}"', f'store="{self.folder}/none"')
        document.write_text(document.read_text().replace(image, image + other))
        with contextlib.closing(sqlite3.connect(self.store / "catalog.db")) as catalog, catalog:
            catalog.execute("UPDATE image SET state = 0")
        detail = "the image waits for its set, of which another store cannot be looked into"
        self.assertEqual(self.succeed("repair", "--store", self.store), "no debris was removed\n"
                         f"waiting: image {identity} in store {self.store}: {detail}\n")
        found = self.json("repair", "--store", self.store)
        self.assertEqual((found["damaged"], found["waiting"]),
                         ([], [{"id": identity, "store": str(self.store), "detail": detail}]))

    def test_a_store_that_is_none_is_told(self):
        error = self.fail_with(1, "repair", "--store", self.folder / "none")
        self.assertIn(f"qzfi: repair store {self.folder}/none: ", error)


class Providers(ToolTest):
    def test_ours_are_loaded_the_most_preferred_first(self):
        document = self.json("providers")
        self.assertEqual([(each["id"], each["method"], each["technology"], each["consistency"])
                          for each in document["providers"]],
                         [("btrfs", "btrfs", "snapshot", "atomic"), ("reflink", "reflink", "clone", "per-file"),
                          ("copy", "copy", "copy", "fuzzy")])
        self.assertEqual(document["refused"], [])

    def test_a_refused_plugin_is_listed_with_the_reason(self):
        plugins = self.folder / "plugins"
        plugins.mkdir()
        (plugins / "qzfi_provider_text.so").write_text("no library")
        environment = support.environment(QFI_DIR=str(plugins) + "/")
        table = self.succeed("providers", env=environment)
        self.assertRegex(table, r"\nqzfi_provider_text\.so +refused +- +- +.*file too short\n$")


    def test_a_refused_plugin_is_told_where_a_method_is_chosen(self):
        plugins = self.folder / "plugins"
        shutil.copytree(support.root() / "lib" / "qzfi" / "plugins", plugins)
        (plugins / "qzfi_provider_btrfs.so").write_text("no library")
        environment = support.environment(QFI_DIR=str(plugins) + "/")
        told = r"^plugin qzfi_provider_btrfs\.so was refused, its method cannot be chosen: .*file too short\n$"
        at = ("--store", self.store)
        for arguments, regexp in ((("freeze", self.data, *at), told), (("freeze", self.data, *at, "--quiet"), "^$"),
                                  (("freeze", self.data, *at, "--method", "copy"), "^$"), (("methods", self.data), told)):
            with self.subTest(arguments):
                result = support.qzfi(*arguments, env=environment)
                self.assertEqual(result.code, 0, str(result))
                self.assertRegex(result.err, regexp)
        refused, = self.json("methods", self.data, env=environment)["refused"]
        self.assertEqual(refused["file"], "qzfi_provider_btrfs.so")
        self.assertIn("file too short", refused["reason"])
        self.assertEqual(self.json("methods", self.data)["refused"], [])


class Nodes(ToolTest):
    def test_a_file_system_is_listed_with_those_who_can_freeze_it_and_its_disk(self):
        mount_point = support.loop_filesystem("xfs", 320)
        document = self.json("nodes")
        node, = [node for node in document["nodes"] if node["path"] == str(mount_point)]
        self.assertEqual(node["providers"], ["reflink", "copy"])
        self.assertGreater(node["size"], 200 << 20)
        disk, = [disk for disk in document["disks"] if str(mount_point) in disk["filesystems"]]
        self.assertEqual((disk["device"], disk["mounted"], disk["capacity"]), ("/dev/" + disk["name"], True, 320 << 20))

    def test_the_tables_say_the_same(self):
        mount_point = support.memory_filesystem("size=4m")
        table = self.succeed("nodes")
        self.assertRegex(table, r"^FILE SYSTEM +SIZE +PROVIDERS\n")
        self.assertRegex(table, rf"\n{mount_point} +4\.0 MiB +copy\n")


class Errmsg(ToolTest):
    def test_texts_of_either_library(self):
        self.assertEqual(self.succeed("errmsg", "1024"), "No such image\n")
        self.assertEqual(self.json("errmsg", "1024"), {"status": 1024, "text": "No such image"})
        self.assertNotEqual(self.succeed("errmsg", "3"), "\n")

    def test_what_has_no_text_is_told(self):
        self.assertEqual(self.fail_with(1, "errmsg", "7777"), "qzfi: status 7777 has no text\n")

    def test_what_is_no_number_is_wrong_usage(self):
        for word in ("x", "-1", "4294967296", "1.5", ""):
            with self.subTest(word):
                self.assertEqual(support.qzfi("errmsg", word).code, 2)


class Log(ToolTest):
    def setUp(self):
        super().setUp()
        self.configuration = support.root() / "lib" / ".qzms.rc"
        self.folder_of_logs = support.root() / "arcvault" / "logs" / "fisagent"
        self.addCleanup(self.configuration.unlink, missing_ok=True)
        self.addCleanup(shutil.rmtree, self.folder_of_logs, ignore_errors=True)
        self.environment = support.environment(TMPDIR=None)

    def log(self, *arguments):
        return self.succeed("log", *arguments, env=self.environment)

    def test_levels_are_switched_on_and_off_again(self):
        self.assertEqual(self.json("log")["levels"], [])
        self.log("--level", "WARN", "--level", "INFO,TRC_TOP")
        self.assertEqual(self.json("log")["levels"], ["INFO", "WARN", "TRC_TOP"])
        self.assertEqual(self.configuration.read_text(), "debug_level=WARN|INFO|TRC_TOP\n")
        self.log("--level", "INFO|TRC_TOP")
        self.assertEqual(self.configuration.read_text(), "debug_level=INFO|TRC_TOP\n")
        self.log("--level", "PARAM_IN")
        self.assertEqual(self.configuration.read_text(), "debug_level=PARAM_IN\n")
        self.log("--off")
        self.assertEqual((self.json("log")["levels"], self.configuration.read_text()), ([], ""))

    def test_quiet_silences_what_is_done_and_not_what_is_asked(self):
        self.assertEqual(self.log("--level", "WARN", "--quiet"), "")
        self.assertIn("Levels:        WARN\n", self.log("--quiet"))

    def test_other_lines_stay_as_they_are(self):
        self.configuration.write_text("# debug_level=INFO\nother = 1\ndebug_level = WARN\nlast = 2\ndebug_level=INFO")
        self.configuration.chmod(0o640)
        self.log("--level", "TRC_LOW")
        self.assertEqual(self.configuration.read_text(),
                         "# debug_level=INFO\nother = 1\ndebug_level=TRC_LOW\nlast = 2\n")
        self.assertEqual(self.configuration.stat().st_mode & 0o777, 0o640)
        self.log("--off")
        self.assertEqual(self.configuration.read_text(), "# debug_level=INFO\nother = 1\nlast = 2\n")

    def test_a_level_hidden_in_a_long_line_is_not_passed_over(self):
        self.configuration.write_text("# " + "x" * 300 + " debug_level=INFO\n")
        error = self.fail_with(1, "log", "--off", env=self.environment)
        self.assertIn(f"qzfi: other text of {self.configuration} sets trace levels too: INFO are in force", error)

    def test_log_files_are_listed_the_newest_first(self):
        self.log("--level", "TRC_TOP")
        self.assertEqual(self.folder_of_logs.stat().st_mode & 0o777, 0o700)
        for _ in range(2):
            self.succeed("providers", env=self.environment)
        document = self.json("log", env=self.environment)
        times = [file["time"] for file in document["files"]]
        self.assertEqual((len(times), times), (2, sorted(times, reverse=True)))
        lines = self.log().splitlines()
        self.assertIn(f"Folder:        {self.folder_of_logs}", lines)
        self.assertEqual(len(os.listdir(self.folder_of_logs)), 2, "one for each start, and none of `qzfi log`")
        self.assertEqual(sorted(line.split()[0] for line in lines if line.startswith("QzFI-")),
                         sorted(os.listdir(self.folder_of_logs)))

    def test_the_trace_is_shown_when_asked_for(self):
        self.log("--level", "TRC_TOP")
        result = support.qzfi("providers", "--trace", env=self.environment)
        self.assertIn("\nEntering qzfi_enumerate_providers\nExiting qzfi_enumerate_providers with 0\n",
                      "\n" + result.err)
        self.succeed("providers", env=self.environment)

    def test_an_unknown_level_is_wrong_usage(self):
        self.assertEqual(support.qzfi("log", "--level", "LOUD").code, 2)
        self.assertEqual(support.qzfi("log", "--level", "INFO", "--off").code, 2)
        self.assertFalse(self.configuration.exists())


if __name__ == "__main__":
    support.main()
