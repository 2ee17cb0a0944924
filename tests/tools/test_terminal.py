"""What people see: tables, progress and colour on terminals of several widths; and wrong usage."""
import os
import re
import signal
import time
import unittest

import support
from support import IMAGE_ID, LOCAL_TIME, ToolTest


def columns_of(text):
    """Columns of the widest line that was shown, as far as the cursor went."""
    text = re.sub(r"\x1b\[[0-9;?]*[A-Za-z]", "", text)
    return max(len(line) for line in re.split(r"[\r\n]", text))


class Tables(ToolTest):
    def setUp(self):
        super().setUp()
        self.deep = self.folder / "a-rather-long-name-of-a-folder" / "that-holds-another-one" / "data"
        self.deep.mkdir(parents=True)
        self.identity = self.freeze(self.deep, "--method", "copy", "--store", self.store, "--label", "weekly: \x1b[31mµ")

    def test_a_pipe_gets_all_of_it_without_colour(self):
        lines = self.stable(self.succeed("list", "--store", self.store)).splitlines()
        self.assertEqual(len(lines), 2)
        self.assertRegex(lines[0], r"^ID +TIME +METHOD +CONSISTENCY +SIZE +LABEL +OBJECTS$")
        self.assertRegex(lines[1], r"^ID +TIME +copy +fuzzy +- +weekly: \\x1b\[31mµ +FOLDER/a-rather-long-name-of-a-folder"
                         r"/that-holds-another-one/data$")

    def test_80_columns_hold_labels_and_paths_whole_below_their_rows(self):
        for command in (("list",), ("show", self.identity), ("prune", "--keep-last", "1", "--dry-run")):
            with self.subTest(command):
                out = support.on_terminal(*command, "--store", self.store, columns=80).out
                self.assertNotIn("...", out)
                self.assertRegex(out, LOCAL_TIME)
                self.assertIn(self.identity, out)
                self.assertIn(str(self.deep), out)
                broken = [line for line in re.split(r"[\r\n]+", out) if columns_of(line) > 80]
                # A path without a blank is not broken; it has a line of its own.
                self.assertEqual([line for line in broken if len(line.split()) > 1 and not line.startswith("Store:")], [])

    def test_what_doctor_says_goes_on_in_further_lines(self):
        environment = support.environment(QFI_DIR=str(self.folder) + "/")  # no plugins there
        whole = support.qzfi("doctor", env=environment).out
        self.assertGreater(columns_of(whole), 80)
        for columns in (80, 40):
            with self.subTest(columns):
                out = support.on_terminal("doctor", columns=columns, env=environment).out
                out = re.sub(r"\x1b\[[0-9;?]*[A-Za-z]", "", out)
                self.assertEqual(out.split(), whole.split())
                broken = [line for line in out.splitlines() if len(line) > columns and len(line.split()) > 1]
                self.assertEqual(broken, [])

    def test_80_columns_shorten_what_may_be(self):
        deep = support.memory_filesystem("size=1m") / ("x" * 60)
        deep.mkdir()
        self.assertEqual(support.run(["mount", "-t", "tmpfs", "tmpfs", deep]).code, 0)
        out = support.on_terminal("nodes", columns=80).out
        self.assertIn("...", out)
        self.assertLessEqual(columns_of(out), 80)

    def test_blanks_in_paths_stay(self):
        odd = self.folder / ("two  blanks" + "-" * 60)
        odd.mkdir()
        self.freeze(odd, "--method", "copy", "--store", self.store)
        self.assertIn(f"{self.folder}/two  blanks", support.on_terminal("list", "--store", self.store, columns=200).out)

    def test_80_columns_hold_descriptions_whole_below_their_rows(self):
        lines = support.on_terminal("providers", columns=80, env=support.environment(NO_COLOR="1")).out.splitlines()
        self.assertEqual(lines[0].split(), ["PROVIDER", "STATE", "METHOD", "CONSISTENCY"])
        place = lines.index("    A tree of files that share their data with the originals; each file is of")
        self.assertEqual(lines[place - 1].split(), ["reflink", "loaded", "reflink", "per-file"])
        self.assertEqual(lines[place + 1], "    one moment")

    def test_200_columns_hold_more(self):
        narrow = support.on_terminal("list", "--store", self.store, columns=120).out
        wide = support.on_terminal("list", "--store", self.store, columns=200).out
        self.assertLessEqual(columns_of(narrow), 120)
        self.assertLessEqual(columns_of(wide), 200)
        self.assertGreater(columns_of(wide), columns_of(narrow))

    def test_titles_are_bold_only_where_colour_is_wanted(self):
        self.assertTrue(support.on_terminal("list", "--store", self.store).out.startswith("\x1b[1mID "))
        for changes in ({"NO_COLOR": "1"}, {"TERM": "dumb"}, {"TERM": None}):
            with self.subTest(changes):
                result = support.on_terminal("list", "--store", self.store, env=support.environment(**changes))
                self.assertEqual(result.code, 0, str(result))
                self.assertNotIn("\x1b", result.out)
        self.assertIn("\x1b[1m", support.on_terminal("list", "--store", self.store,
                                                     env=support.environment(NO_COLOR="")).out)

    def test_an_empty_list_says_so_unless_quiet(self):
        empty = self.folder / "empty"
        self.freeze(self.data, "--method", "copy", "--store", empty)
        support.qzfi("rm", "--yes", "--store", empty, self.listed(empty)[0])
        result = support.qzfi("list", "--store", empty)
        self.assertEqual((result.code, result.out, result.err), (0, "", "no images\n"))
        for others in (("verify", "--all"), ("prune", "--keep-last", "1")):
            result = support.qzfi(*others, "--store", empty)
            self.assertEqual((result.code, result.out, result.err), (0, "", "no images\n"), str(result))
            self.assertEqual(support.qzfi(*others, "--store", empty, "--quiet").err, "")
        self.assertEqual(support.qzfi("list", "--store", empty, "--quiet").err, "")


class Progress(ToolTest):
    def setUp(self):
        super().setUp()
        for number in range(4000):
            (self.data / f"file-{number}").write_bytes(b"x" * 100)
        self.arguments = ("freeze", self.data, "--method", "copy", "--store", self.store, "--workers", "1")

    def test_a_terminal_gets_a_bar_that_is_gone_afterwards(self):
        for columns in (80, 200, 40):
            with self.subTest(columns):
                result = support.on_terminal(*self.arguments, columns=columns)
                self.assertEqual(result.code, 0, str(result))
                self.assertRegex(result.out, r"\r\x1b\[Kfreeze \[#*\.*\] [0-9]+%[ \r]")
                self.assertRegex(result.out, rf"\r\x1b\[K{IMAGE_ID}\n$")
                self.assertLess(columns_of(result.out), columns)

    def fill(self):
        """So many files that copying them takes longer than a signal."""
        for number in range(20000):
            (self.data / f"file-{number}").write_bytes(b"x")

    def pause(self, process, seconds):
        """Lets time go by for a command that copies."""
        process.send_signal(signal.SIGSTOP)
        time.sleep(seconds)
        process.send_signal(signal.SIGCONT)

    def test_the_bar_tells_rate_and_time_left(self):
        self.fill()
        restore = ("restore", self.freeze(), "--to", self.folder / "there", "--store", self.store, "--workers", "1")
        told = {200: r"[0-9,]+ entries  [0-9.]+ \S+  [0-9.]+ \S+/s  [0-9]+:[0-9]{2} min left  /",
                80: r"[0-9.]+ \S+/s  [0-9]+:[0-9]{2} min left", 40: r"[0-9]+:[0-9]{2} min left"}
        for command, columns in ((restore, 200), *((self.arguments, columns) for columns in told)):
            with self.subTest((command[0], columns)):
                with support.Terminal(support.tool_command(*command), columns=columns) as terminal:
                    terminal.read_until(rf"{command[0]} \[")
                    self.pause(terminal.process, 1.1)
                    result = terminal.finish()
                self.assertEqual(result.code, 0, str(result))
                self.assertRegex(result.out, rf"{command[0]} \[#*\.*\] [0-9]+%  (\S.*)?{told[columns]}")
                self.assertLess(columns_of(result.out), columns)

    def test_every_work_is_called_as_people_call_it(self):
        identity, at = self.freeze(), ("--store", self.store)
        folder = self.folder / "out"
        for command, word in ((("verify", identity), "verify"), (("diff", identity), "compare"),
                              (("export", identity, "--to", folder), "export"), (("import", folder), "import"),
                              (("resync", identity, "--yes"), "resync")):
            with self.subTest(command[0]):
                result = support.on_terminal(*command, *at)
                self.assertEqual(result.code, 0, str(result))
                self.assertEqual(set(re.findall(r"\r\x1b\[K(\w+) [\[ ]", result.out)) - {word}, set())
                self.assertRegex(result.out, rf"\r\x1b\[K{word} ")

    def test_a_pipe_gets_a_line_after_ten_seconds(self):
        self.fill()
        process = support.start(*self.arguments)
        support.wait_for(lambda: len(list(self.store.glob("images/.new-*/objects/0/file-*"))) > 1000, "the copying")
        self.pause(process, 10.1)
        out, error = process.communicate(timeout=support.PATIENCE)
        self.assertEqual(process.returncode, 0, error)
        self.assertRegex(out, rf"^{IMAGE_ID}\n$")
        self.assertRegex(error, rf"^(freeze {self.data}: [0-9]+%, [0-9,]+ entries, [0-9.]+ \S+, [0-9.]+ \S+/s, "
                                r"[0-9]+:[0-9]{2} min left\n)+$")

    def test_a_terminal_without_cursor_movement_gets_none(self):
        result = support.on_terminal(*self.arguments, env=support.environment(TERM="dumb"))
        self.assertRegex(result.out, rf"^{IMAGE_ID}\n$")

    def test_a_pipe_gets_the_id_alone(self):
        self.assertRegex(self.succeed(*self.arguments), rf"^{IMAGE_ID}\n$")

    def test_quiet_shows_none(self):
        result = support.on_terminal(*self.arguments, "--quiet")
        self.assertRegex(result.out, rf"^{IMAGE_ID}\n$")

    def test_json_on_standard_output_is_not_disturbed(self):
        self.json(*self.arguments, schema="freeze")


class Usage(ToolTest):
    def test_wrong_usage_has_its_exit_code_and_says_nothing_on_output(self):
        for arguments in ((), ("freeze",), ("nothing",), ("list", "--unknown"), ("list", "surplus"),
                          ("freeze", "/tmp", "--workers", "0"), ("freeze", "/tmp", "--workers", "x"),
                          ("freeze", "/tmp", "--store"), ("log", "--level"), ("errmsg",), ("run",), ("methods",),
                          ("list", "freeze", "/tmp"), ("--completion", "fish"), ("diff", "latest", "a", "b"),
                          ("repair", "--forget", "/x", "--json"), ("restore", "latest", "--workers", "65")):
            with self.subTest(arguments):
                result = support.qzfi(*arguments)
                self.assertEqual((result.code, result.out), (2, ""), str(result))
                self.assertNotEqual(result.err, "")

    def test_what_is_wrong_is_named(self):
        for arguments, text in ((("nothing",), "no command nothing; `qzfi --help` tells more"),
                                (("--nothing",), "no option --nothing; `qzfi --help` tells more"),
                                ((), "no command; `qzfi --help` tells more"),
                                (("freeze",), "freeze: PATH is required; `qzfi freeze --help` tells more"),
                                (("log", "--level", "INFO,LOUD"), "log --level LOUD: there are INFO, WARN, TRC_TOP, "
                                                                  "TRC_LOW, PARAM_IN, PARAM_OUT, PARAM_FULL"),
                                (("--completion", "fish"), "--completion: fish is neither bash nor zsh; `qzfi --help` "
                                                           "tells more")):
            with self.subTest(arguments):
                self.assertEqual(support.qzfi(*arguments).err, f"qzfi: {text}\n")

    def test_a_number_that_cannot_be_is_named_with_those_that_can(self):
        for command, option, value, text in (
                ("prune", "--keep-free", "200", "200 is no number from 0 to 100"),
                ("prune", "--keep-free", "nan", "nan is no number from 0 to 100"),
                ("prune", "--keep-free", "-0.5", "-0.5 is no number from 0 to 100"),
                ("prune", "--keep-last", "-1", "-1 is no whole number from 0 to 1000000000"),
                ("prune", "--keep-daily", "1.5", "1.5 is no whole number from 0 to 1000000000"),
                ("prune", "--keep-weekly", "99999999999", "99999999999 is no whole number from 0 to 1000000000"),
                ("freeze", "--workers", "many", "many is no whole number from 1 to 64"),
                ("restore", "--workers", "0", "0 is no whole number from 1 to 64")):
            with self.subTest((option, value)):
                self.assertEqual(self.fail_with(2, command, option, value),
                                 f"qzfi: {command}: {option}: {text}; `qzfi {command} --help` tells more\n")
        self.assertEqual(self.fail_with(2, "errmsg", "x"), "qzfi: errmsg: STATUS: x is no whole number from 0 to "
                                                           "2147483647; `qzfi errmsg --help` tells more\n")

    def test_an_empty_value_is_not_taken_for_none(self):
        self.assertEqual(self.fail_with(2, "list", "--root", ""),
                         "qzfi: list: --root: its value is empty; `qzfi list --help` tells more\n")
        for command, *arguments, option in (("restore", "latest", "--yes", "--to"), ("restore", "latest", "--yes", "--only"),
                                            ("resync", "latest", "--yes", "--only"), ("export", "latest", "--to"),
                                            ("prune", "--keep-last", "1", "--yes", "--object"), ("list", "--store"),
                                            ("repair", "--forget"), ("freeze", "/tmp", "--pre"),
                                            ("freeze", "/tmp", "--post"), ("freeze", "/tmp", "--method")):
            with self.subTest((command, option)):
                self.assertEqual(self.fail_with(2, command, *arguments, option, ""),
                                 f"qzfi: {command}: {option}: its value is empty; `qzfi {command} --help` tells more\n")

    def test_an_empty_argument_is_no_argument_either(self):
        for name, *command in (("ID", "show", ""), ("ID", "rm", "--yes", ""), ("ID", "verify", ""), ("PATH", "freeze", ""),
                               ("PATH", "freeze", "/tmp", ""), ("PATH", "methods", ""), ("OTHER", "diff", "latest", ""),
                               ("FILE", "path", "latest", ""), ("FILE", "cat", "latest", ""), ("PATH", "import", "")):
            with self.subTest(command):
                self.assertEqual(self.fail_with(2, *command), f"qzfi: {command[0]}: {name}: its value is empty; "
                                                              f"`qzfi {command[0]} --help` tells more\n")

    def test_help_and_version_succeed(self):
        for arguments in (("--help",), ("--version",), ("freeze", "--help"), ("-h",)):
            with self.subTest(arguments):
                result = support.qzfi(*arguments)
                self.assertEqual((result.code, result.err), (0, ""), str(result))
                self.assertNotEqual(result.out, "")

    def test_help_is_asked_for_as_a_command_too(self):
        self.assertEqual(self.succeed("help"), self.succeed("--help"))
        for command in support.COMMANDS:
            self.assertEqual(self.succeed("help", command), self.succeed(command, "--help"), command)
        self.assertEqual(self.fail_with(1, "show", "help").splitlines()[0][:22], "qzfi: find image help:")

    def test_help_fits_80_columns(self):
        for command in ((), *((name,) for name in support.COMMANDS)):
            with self.subTest(command):
                out = support.qzfi(*command, "--help").out
                self.assertIn("Usage: qzfi " + " ".join(command), out)
                self.assertLessEqual(columns_of(out), 80)

    def test_a_root_that_is_not_there_is_wrong_usage(self):
        result = support.run([support.root() / "bin/qzfi", "--root", self.folder / "none", "list"])
        self.assertEqual(result.code, 2, str(result))


class WorkingFolder(ToolTest):
    """One that is gone: somebody's shell still stands in it."""

    def told(self, *command):
        gone = self.folder / "gone"
        gone.mkdir()
        result = support.run(["sh", "-c", 'cd "$1" && rmdir "$1" && shift && exec "$@"', "sh", gone, *command])
        self.assertEqual((result.code, result.out), (1, ""), str(result))
        return result.err

    def test_a_relative_path_is_told_with_what_was_tried(self):
        identity, at = self.freeze(), ("--store", self.store)
        cause = "the path is relative, and the working folder cannot be told: No such file or directory\n"
        for command, action in ((("list", "--store", "x"), "list --store x"), (("import", "x"), "import x"),
                                (("repair", "--forget", "x"), "repair --forget x"),
                                (("export", identity, *at), f"export image {identity} to {identity}"),
                                (("restore", identity, "--to", "x", *at), f"restore image {identity} to x"),
                                (("diff", identity, "./x", *at), "look at ./x"),
                                (("prune", "--keep-last", "1", "--object", "x", *at), "look at x")):
            with self.subTest(command):
                self.assertEqual(self.told(*support.tool_command(*command)), f"qzfi: {action}: {cause}")
        self.assertEqual(self.told("env", "QFI_ROOT=x", support.root() / "bin/qzfi", "list"),
                         f"qzfi: find the root x: {cause}")
        self.assertEqual(self.told(*support.tool_command("freeze", "x")),
                         "qzfi: look at x: No such directory (1025)\n"
                         "  qzfi_gentree: x: the working folder cannot be told: No such file or directory (2)\n")
        self.assertEqual(self.listed(), [identity])


class Root(ToolTest):
    def setUp(self):
        super().setUp()
        self.tool = support.root() / "bin" / "qzfi"
        self.library = self.folder / "lib" / "libfi.so"

    def test_the_option_goes_before_the_environment(self):
        nowhere = support.environment(QFI_ROOT=str(self.folder))
        result = support.run([self.tool, "errmsg", "1024", "--root", support.root()], env=nowhere)
        self.assertEqual((result.code, result.out), (0, "No such image\n"), str(result))
        self.assertEqual(support.run([self.tool, "errmsg", "1024"], env=nowhere).code, 1)

    def test_the_environment_goes_before_the_default(self):
        result = support.run([self.tool, "errmsg", "1024"], env=support.environment(QFI_ROOT=str(support.root())))
        self.assertEqual((result.code, result.out), (0, "No such image\n"), str(result))

    def test_a_relative_root_is_the_same_root(self):
        frozen = support.run([self.tool, "--root", "root/", "freeze", self.data, "--method", "copy"],
                             cwd=support.scratch())
        self.assertEqual(frozen.code, 0, str(frozen))
        image, = [image for image in self.json("list")["images"] if image["id"] == frozen.out.strip()]
        self.assertEqual(image["store"], f"{support.root()}/arcvault/images")

    def told_of_library(self, before=None):
        """What `qzfi list` says of the library below the test's folder; `before`: how other lines begin."""
        result = support.run([self.tool, "--root", self.folder, "list"])
        self.assertEqual((result.code, result.out), (1, ""), str(result))
        lines = [line for line in result.err.splitlines() if before is None or not line.startswith(before)]
        self.assertEqual(lines[1:], ["  Qfi_start not called or called twice (2)"])
        start = f"qzfi: list the images: {self.library} cannot be used: "
        self.assertTrue(lines[0].startswith(start), result.err)
        return lines[0].removeprefix(start)

    def test_a_broken_root_is_told_with_the_cause(self):
        (self.folder / "lib").mkdir()
        self.assertEqual(self.told_of_library(), "cannot open shared object file: No such file or directory")

    def test_a_library_that_does_not_load_is_told_in_the_loader_s_words(self):
        (self.folder / "lib").mkdir()
        self.library.write_text("this is no shared object at all, however long it is: " + 64 * "x")
        self.assertEqual(self.told_of_library(), "invalid ELF header")

    def test_a_library_of_something_else_is_told_with_what_it_lacks(self):
        (self.folder / "lib").mkdir()
        self.library.symlink_to(support.root() / "lib/libqzfi.so")
        self.assertEqual(self.told_of_library("Unable to load symbol"), "91 of 91 entries are missing, qzfi_start first")


if __name__ == "__main__":
    support.main()
