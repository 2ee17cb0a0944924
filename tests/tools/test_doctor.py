"""qzfi doctor: on whole and on broken installations."""
import json
import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

import support
from support import ToolTest


def compile_library(source, target):
    """Makes a shared library of C source; skips the test where there is no compiler."""
    compiler = shutil.which("cc") or shutil.which("gcc") or shutil.which("clang")
    if not compiler:
        raise unittest.SkipTest("no C compiler")
    target.unlink(missing_ok=True)
    subprocess.run([compiler, "-shared", "-fPIC", "-o", str(target), "-x", "c", "-"], input=source, text=True,
                   check=True)


class Doctor(ToolTest):
    def setUp(self):
        super().setUp()
        self.root = self.folder / "root"
        self.root.mkdir()
        # Links, as nothing here writes into a file of the installation.
        for name in ("bin", "lib", "resources"):
            if (support.root() / name).exists():
                subprocess.run(["cp", "-al", support.root() / name, self.root / name], check=True)

    def doctor(self, code=0, root=None, env=None, prefix=(), **options):
        """Runs it on the root of this test; gives the checks as {(check, object): (health, text)}."""
        command = [*prefix, str(self.root / "bin" / "qzfi"), "--root", str(root or self.root), "doctor", "--json"]
        result = support.run(command, env=env, **options)
        self.assertEqual((result.code, result.err), (code, ""), str(result))
        document = json.loads(result.out)
        self.check_schema(document, "doctor")
        self.assertEqual(document["healthy"], code == 0)
        self.assertTrue(all(check["hint"] for check in document["checks"] if check["health"] != "ok"
                            and check["check"] != "library"))
        return {(check["check"], check["object"]): (check["health"], check["text"]) for check in document["checks"]}

    def test_a_whole_installation_is_healthy(self):
        checks = self.doctor()
        self.assertEqual(checks["root", str(self.root)], ("ok", "complete"))
        self.assertEqual(checks["entries", f"{self.root}/lib/libfi.so"], ("ok", "all 91"))
        self.assertEqual(checks["probe program", f"{self.root}/lib/qzfi/qzfi_provider_probe"], ("ok", "there"))
        for provider, consistency in (("btrfs", "atomic"), ("reflink", "per-file"), ("copy", "fuzzy")):
            self.assertEqual(checks["provider", provider], ("ok", f"loaded; at best {consistency}"))
        self.assertEqual(checks["store", "-"], ("ok", "none yet: the first freeze makes one"))
        self.assertEqual({health for health, _ in checks.values()} - {"warning"}, {"ok"})
        command = [str(self.root / "bin" / "qzfi"), "--root", str(self.root)]
        for words in (["list", "--quiet"], ["repair"], ["verify", "--all", "--quiet"]):
            result = support.run([*command, *words])
            self.assertEqual((result.code, result.err), (0, ""), "that there is no store yet is no fault")
        self.assertEqual({check for check, _ in checks},
                         {"root", "library", "entries", "probe program", "provider", "file system", "store",
                          "catalogs", "locale", "ICU_DATA", "log"})

    def test_the_text_has_a_line_for_each_check(self):
        out = support.run([self.root / "bin" / "qzfi", "--root", self.root, "doctor"]).out
        self.assertIn(f"ok       root           {self.root}: complete\n", out)
        self.assertRegex(out, r"\n0 failures, [0-9]+ warnings?\n$")

    def test_a_file_system_is_listed_with_its_methods(self):
        mount_point = support.loop_filesystem("btrfs")
        self.assertEqual(self.doctor()["file system", str(mount_point)], ("ok", "btrfs, reflink, copy"))

    def test_a_root_that_is_not_there(self):
        nowhere = self.folder / "nowhere"
        result = support.run([self.root / "bin" / "qzfi", "doctor", "--json"],
                             env=support.environment(QFI_ROOT=str(nowhere)))
        self.assertEqual((result.code, result.err), (1, ""), str(result))
        check = json.loads(result.out)["checks"][0]
        self.assertEqual((check["check"], check["object"], check["health"], check["text"]),
                         ("root", str(nowhere), "failure", "No such file or directory"))

    def test_a_missing_library(self):
        (self.root / "lib" / "libfi.so").unlink()
        checks = self.doctor(1)
        self.assertEqual(checks["entries", f"{self.root}/lib/libfi.so"], ("failure", "No such file or directory"))
        self.assertEqual(checks["provider", "-"][0], "failure")

    def test_a_library_that_is_none(self):
        (self.root / "lib" / "libfi.so").unlink()
        (self.root / "lib" / "libfi.so").write_text("no library")
        health, text = self.doctor(1)["entries", f"{self.root}/lib/libfi.so"]
        self.assertEqual(health, "failure")
        self.assertRegex(text, "invalid ELF header|file too short")

    def test_missing_entries_are_named(self):
        compile_library("int qzfi_start(void) { return 0; } int qzfi_list(void) { return 0; }",
                        self.root / "lib" / "libfi.so")
        health, text = self.doctor(1)["entries", f"{self.root}/lib/libfi.so"]
        self.assertEqual(health, "failure")
        self.assertRegex(text, "^90 of 91 missing: qzfi_shutdown, qzfi_errmsg, qzfi_gentree, ")

    def test_a_library_that_crashes_when_it_is_loaded(self):
        compile_library("__attribute__((constructor)) static void crash(void) { __builtin_trap(); }",
                        self.root / "lib" / "libfi.so")
        checks = self.doctor(1)
        self.assertEqual(checks["entries", f"{self.root}/lib/libfi.so"],
                         ("failure", "loading it crashed (Illegal instruction)"))
        self.assertEqual(checks["framework", str(self.root)],
                         ("failure", "asking it crashed (Illegal instruction)"))

    def test_another_library_that_the_environment_names(self):
        other = self.folder / "other.so"
        checks = self.doctor(1, env=support.environment(QFI_API_LIB=str(other)))
        self.assertEqual(checks["entries", str(other)], ("failure", "No such file or directory"))

    def test_a_plugin_that_crashes_is_told_and_the_others_are_loaded(self):
        compile_library("const void *qfi_provider_entry(void) { __builtin_trap(); }",
                        self.root / "lib" / "qzfi" / "plugins" / "qzfi_provider_bad.so")
        checks = self.doctor(1)
        self.assertEqual(checks["provider", "qzfi_provider_bad.so"],
                         ("failure", "refused: crashed while loading (signal 4)"))
        self.assertEqual(checks["provider", "copy"][0], "ok")

    def test_a_plugin_that_crashes_after_its_trial_is_told(self):
        compile_library("""
            #define _GNU_SOURCE
            #include <errno.h>
            #include <string.h>
            const void *qfi_provider_entry(void) {
                if (strcmp(program_invocation_short_name, "qzfi_provider_probe") != 0)
                    __builtin_trap();
                return 0;
            }""", self.root / "lib" / "qzfi" / "plugins" / "qzfi_provider_bad.so")
        checks = self.doctor(1)
        self.assertEqual(checks["framework", str(self.root)],
                         ("failure", "asking it crashed (Illegal instruction)"))
        self.assertEqual(checks["entries", f"{self.root}/lib/libfi.so"], ("ok", "all 91"))

    def test_a_plugin_folder_without_plugins(self):
        shutil.rmtree(self.root / "lib" / "qzfi" / "plugins")
        (self.root / "lib" / "qzfi" / "plugins").mkdir()
        self.assertEqual(self.doctor(1)["provider", "-"], ("failure", "none is loaded: nothing can be frozen"))

    def test_a_missing_probe_program_is_a_warning(self):
        (self.root / "lib" / "qzfi" / "qzfi_provider_probe").unlink()
        self.assertEqual(self.doctor()["probe program", f"{self.root}/lib/qzfi/qzfi_provider_probe"],
                         ("warning", "No such file or directory"))

    @unittest.skipIf(os.geteuid() != 0, "only root can become a user who may not read")
    def test_folders_that_cannot_be_read(self):
        # A copy: the modes of links are those of the installation.
        for folder in (support.scratch(), self.folder):
            folder.chmod(0o755)
        plugins = self.root / "lib" / "qzfi" / "plugins"
        plugins.chmod(0o700)
        checks = self.doctor(1, user=65534, group=65534, extra_groups=[])
        self.assertEqual(checks["root", str(plugins)], ("failure", "Permission denied"))

    @unittest.skipIf(os.geteuid() != 0, "only root can become a user who may not read")
    def test_a_store_of_somebody_else_is_no_store_that_is_gone(self):
        command = [str(self.root / "bin" / "qzfi"), "--root", str(self.root)]
        support.run([*command, "freeze", self.data, "--method", "copy"])
        for folder in (support.scratch(), self.folder):
            folder.chmod(0o755)
        user = {"user": 65534, "group": 65534, "extra_groups": []}
        health, text = self.doctor(**user)["store", f"{self.root}/arcvault/images"]
        self.assertEqual(health, "warning")
        self.assertIn("Not permitted (1041)", text)
        self.assertIn("-> look into it as root, or as the user who made it\n", support.run([*command, "doctor"], **user).out)

    def test_a_store_with_debris_that_cannot_be_removed_is_a_warning(self):
        mount_point = support.memory_filesystem("size=16m")
        store = mount_point / "store"
        command = [str(self.root / "bin" / "qzfi"), "--root", str(self.root)]
        frozen = support.run([*command, "freeze", self.data, "--method", "copy", "--store", store])
        self.assertEqual(frozen.code, 0, str(frozen))
        self.assertEqual(self.doctor()["store", str(store)][0], "ok")
        (store / "images" / ".new-20200101T000000Z-00000000").mkdir()
        self.assertEqual(support.run(["mount", "-o", "remount,ro", mount_point]).code, 0)
        health, text = self.doctor()["store", str(store)]
        self.assertEqual(health, "warning")
        self.assertRegex(text, "^1 image, 1 half-made, ")

    def test_a_store_that_is_gone_is_a_warning(self):
        command = [str(self.root / "bin" / "qzfi"), "--root", str(self.root)]
        support.run([*command, "freeze", self.data, "--method", "copy", "--store", self.store])
        shutil.rmtree(self.store)
        self.assertEqual(self.doctor()["store", str(self.store)][0], "warning")
        told = support.run([*command, "doctor"]).out
        hint, = re.findall(r"`qzfi (repair --forget [^`]*)`", told)
        all_known = (["list"], ["prune", "--keep-last", "1"], ["repair"], ["verify", "--all"])
        for others in all_known:
            result = support.run([*command, *others])
            self.assertEqual((result.code, result.err.splitlines()),
                             (1, [f"qzfi: look at store {self.store}: The store cannot be used (1028)",
                                  f"  qzfi_snapreplica_list: store {self.store} cannot be used: No such file or "
                                  "directory (2)", "  `qzfi doctor` tells what to do about it"]), str(result))
        for words in (hint.split(), ["repair"], ["verify", "--all", "--quiet"], ["list", "--quiet"]):
            result = support.run([*command, *words])
            self.assertEqual((result.code, result.err), (0, ""), str(result))
        self.assertNotIn(("store", str(self.store)), self.doctor())

    def test_a_default_store_that_somebody_took_away_is_a_warning(self):
        command = [str(self.root / "bin" / "qzfi"), "--root", str(self.root)]
        support.run([*command, "freeze", self.data, "--method", "copy"])
        store = self.root / "arcvault" / "images"
        self.assertEqual(self.doctor()["store", str(store)][0], "ok")
        (store / "catalog.db").rename(self.folder / "catalog.db")
        health, text = self.doctor()["store", str(store)]
        self.assertEqual(health, "warning")
        self.assertIn("it holds images, and its catalog is gone: bring catalog.db back, or move images/ away", text)
        self.assertNotIn("--forget", support.run([*command, "doctor"]).out)
        (store / "catalog.db").write_bytes(os.urandom(8192))
        self.assertEqual(self.doctor()["store", str(store)][0], "warning")
        self.assertIn("-> bring catalog.db back from a backup; until then", support.run([*command, "doctor"]).out)
        store.rename(self.folder / "elsewhere")
        store.symlink_to(self.folder / "nowhere")
        self.assertEqual([health for (check, _), (health, _) in self.doctor().items() if check == "store"], ["warning"])

    def test_a_trace_that_was_left_on_is_a_warning(self):
        (self.root / "lib" / ".qzms.rc").write_text("debug_level=WARN\n")
        logs = self.root / "arcvault" / "logs" / "fisagent"
        logs.mkdir(parents=True)
        environment = support.environment(TMPDIR=None)
        health, text = self.doctor(env=environment)["log", str(logs)]
        self.assertEqual(health, "warning")
        self.assertRegex(text, "^[0-9]+ log files?, .*; traced: WARN$")

    def private_root_helper(self):
        helper = pathlib.Path(support.BUILD) / "bin" / "in_private_root"
        if not helper.exists():
            self.skipTest("no " + str(helper))
        probe = support.run([helper, self.root / "resources", "true"])
        if probe.code == support.SKIPPED:
            self.skipTest(probe.err.strip())
        return helper

    def test_missing_catalogs_come_from_the_root_that_has_them(self):
        helper, part = self.private_root_helper(), self.folder / "part"
        subprocess.run(["cp", "-al", self.root / "resources", part], check=True)
        (part / "libfi" / "ja.res").unlink()

        def told(root):
            result = support.run([helper, part, self.root / "bin" / "qzfi", "--root", root, "doctor", "--json"])
            check, = [one for one in json.loads(result.out)["checks"] if one["check"] == "catalogs"]
            self.assertEqual((check["health"], check["text"]), ("warning", "cannot read libfi/ja.res"))
            return check["hint"]

        self.assertEqual(told(self.root), f"messages are in English; install {self.root}/resources there")
        self.assertEqual(told("/usr/lumen"), "messages are in English; install them again", "not into itself")
        (self.folder / "alias").symlink_to("/usr/lumen")
        self.assertEqual(told(self.folder / "alias"), "messages are in English; install them again")

    def test_catalogs_are_found_where_they_belong(self):
        helper = self.private_root_helper()
        checks = self.doctor(prefix=[str(helper), str(self.root / "resources")],
                             env=support.environment(LC_ALL="C", ICU_DATA="x"))
        self.assertEqual(checks["catalogs", "/usr/lumen/resources/"], ("ok", "complete"))
        self.assertEqual(checks["locale", "C"], ("ok", "catalog /usr/lumen/resources/ZELTqzfi.cat"))
        self.assertEqual(checks["ICU_DATA", "x"], ("ok", "messages go to a program's error handler"))


if __name__ == "__main__":
    support.main()
