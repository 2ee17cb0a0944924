"""qzfi freeze: what it prints, and how it ends."""
import json
import os
import unittest

import support
from support import IMAGE_ID, ToolTest


class Freeze(ToolTest):
    def test_the_id_is_alone_on_the_last_line_of_output(self):
        out = self.succeed("freeze", self.data, "--method", "copy", "--store", self.store)
        self.assertRegex(out, f"^{IMAGE_ID}\n$")
        self.assertEqual(self.listed(), [out.strip()])

    def test_json_is_as_its_schema_says(self):
        document = self.json("freeze", self.data, "--method", "copy", "--store", self.store, "--label", "a \"label\"")
        image, = document["images"]
        self.assertEqual(image["label"], "a \"label\"")
        self.assertEqual(image["objects"][0]["path"], str(self.data))
        self.assertEqual(image["method"], "copy")
        self.assertEqual(document["id"], image["id"])
        shown = self.json("show", document["id"], "--store", self.store)
        self.assertEqual(shown["report"], document["report"])
        self.assertEqual(shown["report"]["changed"], 4, "the folder too")

    def test_commands_run_in_order_around_the_instant(self):
        order = self.folder / "order"
        self.succeed("freeze", self.data, "--method", "copy", "--store", self.store,
                     "--pre", f"echo pre >>{order}; touch {self.data}/made", "--post", f"echo post >>{order}")
        self.assertEqual(order.read_text(), "pre\npost\n")
        image, = self.json("list", "--store", self.store)["images"]
        self.assertIn("made", os.listdir(image["objects"][0]["image_path"]))

    def test_a_failing_pre_command_freezes_nothing_and_runs_the_post_command(self):
        post = self.folder / "post"
        error = self.fail_with(1, "freeze", self.data, "--method", "copy", "--store", self.store, "--pre", "exit 3",
                               "--post", f"touch {post}")
        self.assertIn(f"qzfi: quiesce {self.data}: ", error)
        self.assertTrue(post.exists())
        self.assertEqual(self.listed(), [])

    def test_a_post_command_that_fails_after_a_failed_freeze_is_told(self):
        post = "echo still held; exit 5"
        told = ["  and afterwards: The post command failed (1031)",
                f'  qzfi_unquiesce: post command "{post}" failed with exit code 5: still held']
        at = ("--method", "copy", "--store", self.store, "--post", post)
        error = self.fail_with(1, "freeze", self.data, *at, "--pre", "exit 3")
        self.assertEqual(error.splitlines()[0], f"qzfi: quiesce {self.data}: The pre command failed (1030)")
        self.assertEqual(error.splitlines()[2:], told)
        error = self.fail_with(1, "freeze", self.data, *at, "--pre", f"rm -r {self.store}/images/.new-*")
        self.assertRegex(error.splitlines()[0], rf"^qzfi: freeze {self.data}: ")
        self.assertEqual(error.splitlines()[-2:], told)
        self.assertEqual(self.listed(), [])

    def test_what_a_failing_command_said_keeps_its_lines(self):
        error = self.fail_with(1, "freeze", self.data, "--method", "copy", "--store", self.store, "--pre",
                               "printf 'first\\nsecond\\033[31m\\n'; exit 3")
        self.assertTrue(error.endswith("failed with exit code 3: first\n  | second\\x1b[31m\n"), error)

    def test_a_failing_post_command_leaves_the_image_and_says_so(self):
        result = support.qzfi("freeze", self.data, "--method", "copy", "--store", self.store, "--post", "exit 5")
        self.assertEqual(result.code, 4, str(result))
        self.assertRegex(result.out, f"^{IMAGE_ID}\n$")
        self.assertIn("its post command failed", result.err)
        self.assertEqual(self.listed(), [result.out.strip()])

    def test_what_is_not_there_is_told(self):
        error = self.fail_with(1, "freeze", self.folder / "nowhere")
        self.assertIn(f"qzfi: look at {self.folder}/nowhere: ", error)
        self.assertIn("No such file or directory", error)


if __name__ == "__main__":
    support.main()
