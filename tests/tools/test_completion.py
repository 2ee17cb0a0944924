"""Completion in real shells, and the manual pages, against the command's own help."""
import os
import re
import shutil
import unittest

import support
from support import COMMANDS, ToolTest


def options_of(*command):
    """The options that a command's help lists."""
    text = support.qzfi(*command, "--help").out
    names = set()
    for line in re.findall(r"^  (-\S*)", text, re.M):
        names.update(line.split(","))
    return names


class Shell:
    """An interactive shell on a terminal, to press the tabulator in."""

    def __init__(self, command, setup, prompt, folder):
        path = f"{support.root()}/bin:{os.environ['PATH']}"
        environment = support.environment(PATH=path, QFI_ROOT=str(support.root()), TERM="dumb", HISTFILE=None,
                                          HOME=str(folder), ZDOTDIR=str(folder))
        self.prompt = prompt
        self.terminal = support.Terminal(command, columns=200, env=environment, cwd=folder)
        self.terminal.send(setup + "\n")
        self.settle()

    def settle(self):
        self.terminal.send("echo set''tled\n")
        self.terminal.read_until(r"settled\r?\n")
        self.terminal.read_until(re.escape(self.prompt) + r"[^\n]*$")

    def press(self, line, keys="\t"):
        """Types the line and the keys; gives the text that then stands on the terminal, without what rings or moves."""
        self.terminal.output = b""
        self.terminal.send(line + keys)
        # An end that cannot be completed to anything: whatever was to come has come before it.
        self.terminal.send("\x05 @@@")
        self.terminal.read_until("@@@")
        text = self.terminal.text()
        self.terminal.send("\x15")  # the line is given up; not by Ctrl-C, which takes what was typed after it along
        self.settle()
        return re.sub(r"\x1b\[[0-9;?]*[A-Za-z]|[\x07\r]", "", text)


class Bash(ToolTest):
    @classmethod
    def setUpClass(cls):
        if not shutil.which("bash"):
            raise unittest.SkipTest("no bash")

    def setUp(self):
        super().setUp()
        script = support.root() / "share/bash-completion/completions/qzfi"
        self.shell = Shell(["bash", "--norc", "--noprofile", "-i"],
                           f"PS1='ready> '; bind 'set show-all-if-ambiguous on'; bind 'set page-completions off'; "
                           f"bind 'set completion-query-items 0'; source {script}", "ready> ", self.folder)
        self.addCleanup(self.shell.terminal.__exit__)

    def offered(self, line):
        return set(self.shell.press(line).split("\n", 1)[-1].split()) - {"ready>", "@@@"}

    def completed(self, line):
        """The line as it stands after the tabulator."""
        return self.shell.press(line).splitlines()[-1].split("@@@")[0]

    def test_subcommands(self):
        self.assertLessEqual(set(COMMANDS), self.offered("qzfi "))
        self.assertEqual(self.completed("qzfi doc"), "qzfi doctor  ")

    def test_every_option_of_every_command(self):
        for command in COMMANDS:
            with self.subTest(command):
                self.assertLessEqual(options_of(command), self.offered(f"qzfi {command} -"))

    def test_image_ids_and_latest(self):
        identity = self.freeze(self.data, "--method", "copy")
        self.assertIn(identity, self.offered("qzfi show "))
        self.assertEqual(self.completed(f"qzfi show {identity[:-3]}"), f"qzfi show {identity}  ")
        self.assertEqual(self.completed(f"qzfi --root {support.root()} rm lat"), f"qzfi --root {support.root()} rm latest  ")

    def test_ids_of_the_store_that_the_line_names(self):
        identity = self.freeze()
        self.assertEqual(self.completed(f"qzfi show --store {self.store} {identity[:-3]}"),
                         f"qzfi show --store {self.store} {identity}  ")
        self.assertEqual(self.completed(f"qzfi show --store={self.store} {identity[:-3]}"),
                         f"qzfi show --store={self.store} {identity}  ")

    def test_files_folders_and_files_within_an_image(self):
        self.assertEqual(self.completed("qzfi freeze dat"), "qzfi freeze data/ ")
        self.assertEqual(self.completed("qzfi freeze data --store dat"), "qzfi freeze data --store data/ ")
        identity = self.freeze()
        self.assertEqual(self.completed(f"qzfi cat --store {self.store} {identity} folder/o"),
                         f"qzfi cat --store {self.store} {identity} folder/other ")

    def test_parts_of_an_image(self):
        identity = self.freeze()
        shutil.rmtree(self.data / "folder")
        for line in (f"qzfi restore --store {self.store} {identity} --only ",
                     f"qzfi resync {identity} --store={self.store} --only="):
            self.assertEqual(self.completed(line + "folder/o"), line + "folder/other ")
            self.assertEqual(self.completed(line + f"{self.data}/fi"), line + f"{self.data}/file  ")
        other = self.folder / "second"
        other.mkdir()
        (other / "one").touch()
        identity = self.freeze(self.data, other, "--method", "copy", "--store", self.store)
        line = f"qzfi restore --store {self.store} {identity} "
        self.assertEqual(self.completed(line + "--object 2 --only o"), line + "--object 2 --only one ")
        self.assertEqual(self.completed(line + "--only o"), line + "--only o ", "which one is not told")

    def test_methods_and_levels(self):
        self.assertEqual(self.offered("qzfi freeze --method "), {"btrfs", "reflink", "copy"} |
                         {"qzfi", "freeze", "--method"})
        self.assertEqual(self.completed("qzfi log --level TRC_T"), "qzfi log --level TRC_TOP  ")

    def test_the_command_to_run(self):
        self.assertEqual(self.completed("qzfi run -- setpri"), "qzfi run -- setpriv  ")


class Zsh(ToolTest):
    @classmethod
    def setUpClass(cls):
        if not shutil.which("zsh"):
            raise unittest.SkipTest("no zsh")

    def setUp(self):
        super().setUp()
        functions = support.root() / "share/zsh/site-functions"
        self.shell = Shell(["zsh", "-f", "-i"],
                           f"PS1='ready> '; unsetopt zle_bracketed_paste prompt_sp; setopt no_beep; "
                           f"fpath=({functions} $fpath); autoload -U compinit; compinit -u -d {self.folder}/dump; "
                           "zstyle ':completion:*' list-prompt ''; LISTMAX=1000; bindkey -e", "ready> ", self.folder)
        self.addCleanup(self.shell.terminal.__exit__)

    def offered(self, line):
        return set(re.findall(r"\S+", self.shell.press(line, "\t\t")))

    def test_subcommands(self):
        self.assertLessEqual(set(COMMANDS), self.offered("qzfi "))
        self.assertIn("qzfi doctor", self.shell.press("qzfi doc"))

    def test_every_option_of_every_command(self):
        for command in COMMANDS:
            with self.subTest(command):
                missing = {option for option in options_of(command) if option.startswith("--")}
                missing -= self.offered(f"qzfi {command} --")
                self.assertEqual(missing, set())

    def test_image_ids(self):
        identity = self.freeze()
        self.assertIn(f"{identity}", self.shell.press(f"qzfi show --store {self.store} {identity[:-3]}"))
        self.assertIn("latest", self.shell.press("qzfi rm lat"))

    def test_files_and_files_within_an_image(self):
        self.assertIn("qzfi freeze data/", self.shell.press("qzfi freeze dat"))
        identity = self.freeze()
        self.assertIn("folder/other", self.shell.press(f"qzfi cat --store {self.store} {identity} folder/o"))

    def test_parts_of_an_image(self):
        identity = self.freeze()
        shutil.rmtree(self.data / "folder")
        line = f"qzfi restore --store {self.store} {identity} --only "
        self.assertIn("folder/other", self.shell.press(line + "folder/o"))
        self.assertIn(f"{self.data}/file", self.shell.press(line + f"{self.data}/fi"))

    def test_methods_and_levels(self):
        self.assertLessEqual({"btrfs", "reflink", "copy"}, self.offered("qzfi freeze --method "))
        self.assertIn("--level TRC_TOP", self.shell.press("qzfi log --level TRC_T"))


class ManualPages(ToolTest):
    def page(self, name):
        return support.root() / "share/man" / f"man{name[-1]}" / name

    def text(self, name):
        result = support.run(["man", "-l", self.page(name)], env=support.environment(MANWIDTH="500", MANPAGER="cat"))
        if result.code != 0:
            self.skipTest("man cannot show it here: " + result.err)
        return re.sub(r".\x08", "", result.out)

    @unittest.skipUnless(shutil.which("groff"), "no groff")
    def test_they_are_well_formed(self):
        for name in ("qzfi.1", "libqzfi.3"):
            with self.subTest(name):
                result = support.run(["groff", "-ww", "-man", "-Tutf8", "-z", self.page(name)])
                self.assertEqual((result.code, result.err), (0, ""))

    @unittest.skipUnless(shutil.which("man"), "no man")
    def test_every_subcommand_and_option_is_there(self):
        def words(text):
            return set(re.findall(r"--?[A-Za-z0-9][a-z0-9-]*", text))

        general, commands = re.search(r"(?ms)^OPTIONS$(.*)^COMMANDS$(.*)^EXIT STATUS$", self.text("qzfi.1")).groups()
        sections = re.split(r"(?m)^   (?=\S)", commands)
        self.assertEqual(options_of() - words(general), set())
        for command in COMMANDS:
            with self.subTest(command):
                section, = [text for text in sections if re.search(rf"(?m)^       {command}\b", text)]
                self.assertEqual(options_of(command) - words(general) - words(section), set())

    @unittest.skipUnless(shutil.which("man"), "no man")
    def test_every_exit_code_is_there(self):
        codes = re.findall(r"exit_\w+ = (\d+)", (support.SOURCE / "tools/qzfi/tool.h").read_text())
        section = self.text("qzfi.1").split("EXIT STATUS")[1].split("ENVIRONMENT")[0]
        self.assertEqual(re.findall(r"(?m)^       (\d+)\b", section), codes)


if __name__ == "__main__":
    support.main()
