"""The images' life on Btrfs and by reflinks, on read-only and on full file systems."""
import json
import os
import pathlib
import re
import shutil
import subprocess
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

    def test_nested_subvolumes_come_when_asked_for(self):
        mount_point = support.loop_filesystem("btrfs")
        for name in ("volume", "volume/inner"):
            self.assertEqual(support.run(["btrfs", "subvolume", "create", mount_point / name]).code, 0)
        (mount_point / "volume/inner/file").write_text("inner\n")
        for arguments, code in (((), 1), (("--nested",), 0)):
            identity = self.freeze(mount_point / "volume", "--method", "btrfs", *arguments)
            result = support.qzfi("cat", identity, "inner/file")
            self.assertEqual((result.code, result.out), (code, "" if code else "inner\n"), str(result))
            self.succeed("rm", identity, "--yes")

    def test_an_imported_folder_stays_when_asked_for(self):
        identity, out = self.freeze(), self.folder / "out"
        self.succeed("export", identity, "--to", out, "--store", self.store)
        self.succeed("import", out, "--keep-source", "--store", self.store)
        self.assertEqual((self.listed(), (out / "fiid.xml").exists()), ([identity], True))

    def test_by_reflinks(self):
        self.live(support.loop_filesystem("xfs", 320), "reflink")


class Unusable(ToolTest):
    """Of two known stores one is gone, as that of a disk which is not mounted."""

    def setUp(self):
        super().setUp()
        self.other = self.folder / "other"
        self.identity = self.freeze()
        self.newer = self.freeze(self.data, "--method", "copy", "--store", self.other)
        self.other.rename(self.folder / "away")
        self.addCleanup(lambda: support.qzfi("repair", "--forget", self.other))
        self.causes = [f"qzfi_snapreplica_list: store {self.other} cannot be used: No such file or directory (2)"]

    def document(self, *arguments):
        result = support.qzfi(*arguments, "--json")
        self.assertEqual(result.code, 1, str(result))
        self.assertIn(f"qzfi: look at store {self.other}: The store cannot be used (1028)\n  {self.causes[0]}\n",
                      result.err)
        document = json.loads(result.out)
        self.check_schema(document, arguments[0])
        store, = [store for store in document["unusable"] if store["path"] == str(self.other)]
        self.assertEqual((store["status"], store["causes"]), (1028, self.causes))
        return document

    def test_what_looks_into_all_stores_names_it_and_goes_on_with_the_others(self):
        self.assertIn(self.identity, [image["id"] for image in self.document("list")["images"]])
        self.assertIn(self.identity, [image["id"] for image in self.document("verify", "--all")["images"]])
        again = self.freeze()
        pruned = self.document("prune", "--keep-last", "1", "--object", self.data, "--yes")
        self.assertEqual([(one["id"], one["removed"]) for one in pruned["images"]],
                         [(self.identity, True), (again, False)])
        table = support.qzfi("list")
        self.assertEqual((table.code, again in table.out), (1, True), str(table))

    def test_one_store_is_looked_into_without_a_word(self):
        self.assertEqual(self.json("list", "--store", self.store)["unusable"], [])
        self.assertEqual(self.json("verify", "--all", "--store", self.store)["unusable"], [])
        self.assertEqual(self.json("prune", "--keep-last", "1", "--store", self.store)["unusable"], [])
        self.succeed("show", self.identity)

    def test_the_latest_image_is_not_known_then(self):
        error = self.fail_with(1, "rm", "latest", "--yes")
        self.assertEqual(error.splitlines()[0], "qzfi: find image latest: a newer one may be where nobody can look; "
                                                "name the image, or a store by --store")
        self.assertIn(f"  store {self.other}: The store cannot be used (1028)\n  {self.causes[0]}\n", error)
        self.assertEqual(self.listed(), [self.identity])
        self.assertEqual(self.json("show", "latest", "--store", self.store)["id"], self.identity)

    def test_a_set_that_is_there_in_part_does_not_pass_for_all_of_it(self):
        disks = [support.loop_filesystem("btrfs"), support.loop_filesystem("btrfs")]
        objects = [disk / "data" for disk in disks]
        for folder in objects:
            folder.mkdir()
            (folder / "file").write_text("content")
        identity = self.freeze(*objects, "--method", "reflink")
        self.succeed("show", identity)  # the store that is away has none of it
        first, second = self.json("show", identity)["images"]
        (disks[0] / ".qzfi").rename(disks[0] / "away")
        for command in (("show",), ("verify",), ("restore", "--yes"), ("resync", "--yes"), ("rm", "--yes"), ("diff",)):
            with self.subTest(command[0]):
                error = self.fail_with(1, command[0], identity, *command[1:])
                self.assertEqual(error.splitlines()[:2], [
                    f"qzfi: find set {identity}: some of its images are not there; name those that are there: "
                    f"{second['id']}", f"  image {first['id']}: in no store that could be looked into"])
                self.assertIn(f"  store {disks[0]}/.qzfi: The store cannot be used (1028)\n", error)
        self.succeed("verify", second["id"])
        (disks[0] / "away").rename(disks[0] / ".qzfi")
        self.succeed("rm", identity, "--yes")

    def test_an_image_that_is_not_found_may_be_there(self):
        error = self.fail_with(1, "show", self.newer)
        self.assertEqual(error.splitlines()[0], f"qzfi: find image {self.newer}: No such image (1024) in any known store")
        self.assertIn(f"  store {self.other}: The store cannot be used (1028)\n  {self.causes[0]}\n", error)


class Broken(ToolTest):
    """A store of which the catalog is none, among others or as the default one, which names all others."""

    def damage(self, store):
        catalog = store / "catalog.db"
        catalog.rename(self.folder / "catalog.db")
        catalog.write_bytes(b"no catalog " * 1000)
        self.addCleanup(lambda: (self.folder / "catalog.db").replace(catalog))

    def repaired(self, store):
        """The document of a repair that can do nothing for that store, and tells so once."""
        result = support.qzfi("repair", "--json")
        self.assertEqual(result.code, 1, str(result))
        self.assertEqual(result.err.splitlines()[0], f"qzfi: look at store {store}: The store's catalog failed (1037)")
        self.assertEqual((len(re.findall("^qzfi: ", result.err, re.M)), result.err.count(f"catalog of store {store}: ")),
                         (1, 1), result.err)
        document = json.loads(result.out)
        self.check_schema(document, "repair")
        self.assertIn((str(store), 1037), [(one["path"], one["status"]) for one in document["stores"]])
        return document

    def test_a_repair_goes_on_with_the_others(self):
        self.freeze()
        other = self.folder / "other"
        self.freeze(self.data, "--method", "copy", "--store", other)
        for store in (self.store, other):
            self.addCleanup(lambda path=store: support.qzfi("repair", "--forget", path))
        self.damage(self.store)
        (other / "images/.new-20200101T000000Z-00000000").mkdir()
        self.assertEqual(self.repaired(self.store)["removed"], 1)
        self.assertEqual(support.qzfi("repair").out, "no debris was removed\n")
        error = self.fail_with(1, "repair", "--store", self.store, "--json")
        self.assertIn(f"qzfi: repair store {self.store}: The store's catalog failed (1037)\n", error)

    def test_nothing_is_said_of_what_the_default_store_hides(self):
        self.freeze(self.data, "--method", "copy")
        store = support.root() / "arcvault" / "images"
        self.damage(store)
        self.assertEqual(self.repaired(store)["removed"], 0)
        for command in (["repair"], ["list"], ["verify", "--all"], ["prune", "--keep-last", "1"]):
            error = self.fail_with(1, *command)
            self.assertEqual(error.splitlines()[0], f"qzfi: look at store {store}: The store's catalog failed (1037)")


class PartOfASet(ToolTest):
    """A set over two disks, each with a store of its own; the first object has been frozen alone since."""

    def setUp(self):
        super().setUp()
        self.disks = [support.loop_filesystem("btrfs"), support.loop_filesystem("btrfs")]
        self.objects = [disk / "data" for disk in self.disks]
        for folder in self.objects:
            folder.mkdir()
            (folder / "file").write_text("content")
        self.set = self.freeze(*self.objects, "--method", "reflink")
        self.parts = {image["store"]: image["id"] for image in self.json("show", self.set)["images"]}
        self.stores = [str(disk / ".qzfi") for disk in self.disks]
        self.first, self.second = [self.parts[store] for store in self.stores]
        self.alone = self.freeze(self.objects[0], "--method", "reflink")
        self.addCleanup(lambda: [support.qzfi("repair", "--forget", store) for store in self.stores])

    def decided(self, *arguments):
        result = support.qzfi("prune", "--keep-last", "1", "--object", self.objects[0], "--yes", "--json", *arguments)
        document = json.loads(result.out)
        self.check_schema(document, "prune")
        return result.code, {one["id"]: (one["action"], one["missing"], one["removed"]) for one in document["images"]}

    def test_what_is_there_of_it_is_not_pruned(self):
        store = self.disks[1] / ".qzfi"
        store.rename(self.disks[1] / "away")
        self.assertEqual(self.decided(), (1, {self.set: ("leave", [self.second], False),
                                              self.alone: ("keep", [], False)}))
        self.assertEqual(self.decided("--store", self.stores[0]), (0, {self.set: ("leave", [self.second], False),
                                                                       self.alone: ("keep", [], False)}))
        table = support.qzfi("prune", "--keep-last", "1", "--object", self.objects[0], "--dry-run")
        self.assertRegex(table.out,
                         f"{self.set} .* leave +not there of its set: {self.second}; mount its store, or see qzfi rm")
        (self.disks[1] / "away").rename(store)
        self.succeed("verify", self.set)
        self.assertEqual(self.decided(), (0, {self.set: ("keep", [], False), self.alone: ("keep", [], False)}))

    def document_of(self, store, image):
        return pathlib.Path(store) / "images" / image / "fiid.xml"

    def test_without_its_id_document_nobody_knows_what_belongs_to_it(self):
        other = self.document_of(self.stores[1], self.second).read_bytes()
        for content in (None, b"", b"<other/>"):
            with self.subTest(content):
                document = self.document_of(self.stores[0], self.first)
                document.unlink(missing_ok=True)
                if content is not None:
                    document.write_bytes(content)
                support.run(["umount", self.disks[1]])
                for command in (("show",), ("restore", "--yes"), ("resync", "--yes"), ("rm", "--yes")):
                    error = self.fail_with(1, command[0], self.set, *command[1:])
                    self.assertEqual(error.splitlines()[:2], [
                        f"qzfi: find set {self.set}: it cannot be told whether all of its images are there; name those "
                        f"that are there: {self.first}",
                        f"  image {self.first}: its id document, which names the others, cannot be read"])
                result = support.qzfi("prune", "--keep-last", "1", "--object", self.objects[0], "--dry-run")
                self.assertRegex(result.out, f"{self.first} .* leave +id document cannot be read: {self.first}; see")
                self.assertIn(f"1 image left, which only `qzfi rm` removes: {self.first}\n", result.err)
                result = support.qzfi("prune", "--keep-last", "1", "--object", self.objects[0], "--yes", "--json")
                one, = [one for one in json.loads(result.out)["images"] if one["id"] == self.first]
                self.assertEqual((one["action"], one["unreadable"], one["removed"]), ("leave", [self.first], False))
                self.succeed("show", self.first)
                support.loop_filesystem_again(self.disks[1])
        self.assertEqual(self.document_of(self.stores[1], self.second).read_bytes(), other)
        self.assertEqual(self.succeed("rm", self.first, "--yes"), f"removed {self.first}\n")

    def test_no_image_of_a_set_goes_where_one_cannot(self):
        newer = self.freeze(*self.objects, "--method", "reflink")
        self.assertEqual(support.run(["mount", "-o", "remount,ro", self.disks[1]]).code, 0)
        error = self.fail_with(1, "rm", self.set, "--yes")
        self.assertEqual(error.splitlines()[0], f"qzfi: remove image {self.set}: Not permitted (1041)")
        self.assertNotIn("removed:", error)
        result = support.qzfi("prune", "--keep-last", "1", "--yes")
        self.assertEqual(result.code, 1, str(result))
        self.succeed("show", self.set)
        self.succeed("verify", self.set)
        self.assertEqual(support.run(["mount", "-o", "remount,rw", self.disks[1]]).code, 0)
        self.assertEqual(self.succeed("rm", self.set, "--yes"), f"removed {self.set}\n")
        self.succeed("show", newer)

    @unittest.skipIf(support.SANITIZED, "a sanitizer's library must be the first one")
    def test_what_is_gone_of_a_set_is_told_when_the_rest_fails(self):
        """The disk fails when the second image is taken out of its catalog."""
        compiler = shutil.which("cc") or shutil.which("gcc") or shutil.which("clang")
        if not compiler:
            self.skipTest("no C compiler")
        failing = self.folder / "failing.so"
        subprocess.run([compiler, "-shared", "-fPIC", "-D_GNU_SOURCE", "-o", failing, "-x", "c", "-"], text=True,
                       check=True, input="""
            #include <dlfcn.h>
            #include <string.h>
            int sqlite3_step(void *statement) {
                static int count;
                const char *(*sql)(void *) = (const char *(*)(void *))dlsym(RTLD_NEXT, "sqlite3_sql");
                int (*step)(void *) = (int (*)(void *))dlsym(RTLD_NEXT, "sqlite3_step");
                const char *text = sql(statement);
                if (text && strncmp(text, "DELETE FROM image ", 18) == 0 && ++count > 1)
                    return 10;
                return step(statement);
            }""")
        preloaded = support.environment(LD_PRELOAD=f"{failing} libsqlite3.so.0")
        error = self.fail_with(1, "rm", self.set, "--yes", env=preloaded)
        self.assertIn(f"\n  removed: {self.first}; left: {self.second}, to be removed by `qzfi rm` with just that\n",
                      error)
        self.assertEqual(self.succeed("rm", self.second, "--yes"), f"removed {self.second}\n")

    def test_the_images_of_a_set_are_listed_with_it(self):
        for row in self.succeed("list").splitlines():
            words = row.split()
            if words[0] in (self.first, self.second):
                self.assertIn(self.set, words[1:], row)
        self.assertIn("SET", self.succeed("list").splitlines()[0].split())
        self.succeed("rm", self.set, "--yes")
        self.assertNotIn("SET", support.qzfi("list", "--store", self.stores[0]).out)

    def test_of_an_imported_part_the_image_is_named(self):
        out = self.folder / "out"
        self.succeed("export", self.first, "--to", out)
        imported = self.succeed("import", out, "--store", self.stores[1])
        self.assertEqual(imported, f"{self.first}\n")

    def test_pruning_one_store_takes_a_set_with_its_images_elsewhere(self):
        both = {self.set: ("keep", [], False), self.alone: ("keep", [], False)}
        self.assertEqual(self.decided("--store", self.stores[0]), (0, both))
        newer = self.freeze(*self.objects, "--method", "reflink")
        self.assertEqual(self.decided("--store", self.stores[0]),
                         (0, {self.set: ("remove", [], True), self.alone: ("keep", [], False),
                              newer: ("keep", [], False)}))
        self.assertEqual(self.listed(self.stores[1]), [self.json("show", newer)["images"][1]["id"]])

    def test_one_store_does_not_have_the_set(self):
        for command in (("show",), ("verify",), ("restore", "--yes"), ("resync", "--yes"), ("rm", "--yes"),
                        ("export",)):
            with self.subTest(command[0]):
                error = self.fail_with(1, command[0], self.set, *command[1:], "--store", self.stores[0])
                self.assertEqual(error, f"qzfi: find set {self.set}: some of its images are not there; name those that "
                                        f"are there: {self.first}\n  image {self.second}: in store {self.stores[1]}, "
                                        "which is not looked into by --store\n")
        self.succeed("verify", self.set)

    def test_the_rest_of_it_does_not_pass_for_it(self):
        for store, gone in ((None, self.second), (self.stores[0], self.first)):
            if store is None:
                self.succeed("rm", gone, "--yes")
                there = self.first
            else:
                self.set = self.freeze(*self.objects, "--method", "reflink")
                there = self.json("show", self.set)["images"][0]["id"]
                self.assertIn(there, self.listed(store))
                self.succeed("repair", "--forget", self.stores[1])
            for command in (("show",), ("verify",), ("restore", "--yes"), ("resync", "--yes"), ("rm", "--yes")):
                with self.subTest(command[0]):
                    error = self.fail_with(1, command[0], self.set, *command[1:])
                    self.assertIn(f"some of its images are not there; name those that are there: {there}\n", error)
        error = self.fail_with(1, "show", "latest", "--store", self.stores[0])
        self.assertIn(f"qzfi: find set {self.set}: some of its images are not there", error)
        self.succeed("verify", there)
        self.assertEqual(self.succeed("rm", there, "--yes"), f"removed {there}\n")


class WithoutTree(ToolTest):
    """The newest image has lost its tree, as somebody removed that for its space."""

    def check(self, identity, newest, store):
        states = {image["id"]: image["state"] for image in self.json("list", "--store", store)["images"]}
        self.assertEqual(states, {identity: "complete", newest: "damaged"})
        result = support.qzfi("repair", "--store", store, "--json")
        self.assertEqual((result.code, json.loads(result.out)["damaged"][0]["id"]), (3, newest), str(result))
        pruned = self.json("prune", "--keep-last", "1", "--store", store, "--yes")["images"]
        self.assertEqual([(one["id"], one["action"], one["removed"]) for one in pruned],
                         [(identity, "keep", False), (newest, "leave", False)])
        self.assertEqual(self.succeed("rm", newest, "--store", store, "--yes"), f"removed {newest}\n")
        self.assertEqual(os.listdir(store / "images"), [identity])

    def test_of_a_copy(self):
        identity, newest = self.freeze(), self.freeze()
        shutil.rmtree(self.store / "images" / newest / "objects" / "0")
        self.check(identity, newest, self.store)

    def test_without_the_folder_of_the_trees(self):
        identity, newest = self.freeze(), self.freeze()
        shutil.rmtree(self.store / "images" / newest / "objects")
        self.check(identity, newest, self.store)

    def test_of_a_snapshot(self):
        disk = support.loop_filesystem("btrfs")
        (disk / "data").mkdir()
        identity, newest = (self.freeze(disk / "data", "--method", "btrfs") for _ in range(2))
        store = disk / ".qzfi"
        tree = store / "images" / newest / "objects" / "0"
        self.assertEqual(support.run(["btrfs", "subvolume", "delete", tree]).code, 0)
        self.check(identity, newest, store)


class DefaultStore(ToolTest):
    """The default store has a disk of its own."""

    def test_none_is_made_where_its_disk_is_not_mounted(self):
        root = support.install(self.folder / "root")
        disk = support.loop_filesystem("ext4", 40)
        store = root / "arcvault" / "images"
        store.mkdir(parents=True)

        def qzfi(*arguments):
            return support.run([root / "bin" / "qzfi", "--root", root, *arguments])
        self.assertEqual(support.run(["mount", "--bind", disk, store]).code, 0)
        made = qzfi("freeze", self.data, "--method", "copy")
        self.assertEqual(made.code, 0, str(made))
        self.assertEqual(support.run(["umount", store]).code, 0)
        for named in ((), ("--store", store)):
            result = qzfi("freeze", self.data, "--method", "copy", *named)
            self.assertEqual((result.code, result.out), (1, ""), str(result))
            self.assertIn("it is a folder without a catalog: mount its file system, or remove the empty folder",
                          result.err)
            self.assertEqual(os.listdir(store), [])
        self.assertEqual(support.run(["mount", "--bind", disk, store]).code, 0)
        self.assertIn(made.out.strip(), qzfi("list").out)
        self.assertEqual(support.run(["umount", store]).code, 0)
        store.rmdir()
        self.assertEqual(qzfi("freeze", self.data, "--method", "copy").code, 0)


class OtherLibrary(ToolTest):
    def test_a_library_that_tells_nothing_of_a_store_is_told(self):
        """All entries are those of the library that is installed, but for one."""
        ids = [self.freeze() for _ in range(2)]
        library = self.folder / "libfi_without_stores.so"
        compiler = shutil.which("cc") or shutil.which("gcc") or shutil.which("clang")
        if not compiler:
            self.skipTest("no C compiler")
        folder = support.root() / "lib"
        subprocess.run([compiler, "-shared", "-fPIC", "-o", library, "-x", "c", "-", "-x", "none", "-Wl,--no-as-needed",
                        folder / "libfi.so", f"-Wl,-rpath,{folder}"], text=True, check=True,
                       input="int qzfi_query_res_status(void *path, void *reserved, void **list) "
                             "{ (void)path; (void)reserved; *list = 0; return 0; }")
        environment = support.environment(QFI_API_LIB=str(library))
        error = self.fail_with(1, "prune", "--keep-free", "50", "--yes", "--store", self.store, env=environment)
        self.assertEqual(error, f"qzfi: look at store {self.store}: the library tells nothing of it\n")
        self.assertEqual(self.listed(), ids)


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
