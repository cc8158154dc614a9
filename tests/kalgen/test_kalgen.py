"""The generator's error reports: every refusal names the model file and line."""

import os
import subprocess
import sys
import tempfile
import unittest

KALGEN = os.environ.get("KALGEN") or os.path.join(
    os.path.dirname(__file__), "..", "..", "tools", "kalgen", "kalgen.py")


def run(model_name, text):
    with tempfile.TemporaryDirectory() as d:
        path = os.path.join(d, model_name + ".kal")
        with open(path, "w") as f:
            f.write(text)
        p = subprocess.run([sys.executable, KALGEN, "--out-dir", os.path.join(d, "out"), path],
                           capture_output=True, text=True)
        made = sorted(os.listdir(os.path.join(d, "out"))) if os.path.isdir(
            os.path.join(d, "out")) else []
        return p.returncode, p.stderr.strip(), made


class ModelErrors(unittest.TestCase):
    def refused(self, text, line, fragment, name="Bad"):
        code, err, made = run(name, text)
        self.assertEqual(code, 1, err)
        self.assertTrue(err.startswith(f"{name}.kal:{line}: error: "), err)
        self.assertIn(fragment, err)
        self.assertEqual(made, [], "nothing is written for a refused model")

    def test_a_good_model_generates_both_files(self):
        code, err, made = run("Good", "model Good\nnamespace N\nvalue V\n  attr a : U32\n")
        self.assertEqual((code, err), (0, ""))
        self.assertEqual(made, ["Good.gen.cpp", "Good.h"])

    def test_each_refusal_names_its_line(self):
        self.refused("namespace N\n", 1, "first statement must be 'model <Name>'")
        self.refused("model Bad\nnamespace N\nvalue V\n  attr a U32\n", 4,
                     "expected 'attr <name> : <Type> [flags]'")
        self.refused("model Bad\nnamespace N\nentity E\n  attr a : U32\n  attr a : U64\n", 5,
                     "attribute 'a' declared twice")
        self.refused("model Bad\nnamespace N\nvalue V\n  attr a : U32 loud\n", 4,
                     "unknown flag 'loud'")
        self.refused("model Bad\nnamespace N\nvalue V\n  ptr p : N::E\n", 4,
                     "a value type has no 'ptr' attributes")
        self.refused("model Bad\nnamespace N\nentity E\n  input i : N::X -> h on a\n", 4,
                     "needs the type to be a reactor")
        self.refused("model Bad\nnamespace N\nvalue V\n  attr v : U32 range=lo..9\n", 4,
                     "range bound 'lo' is neither a number nor a constraint")
        self.refused("model Bad\nvalue V\n", 2, "declared outside a namespace")
        self.refused("model Bad\nnamespace N\n  attr a : U32\n", 3, "outside a type")
        self.refused("model Bad\nnamespace N\nvalue V\nvalue V\n", 4,
                     "declared twice (first at line 3)")
        self.refused("model Bad\nnamespace N\nentity E\n  blob b : U32\n", 4,
                     "unknown attribute kind 'blob'")
        self.refused("model Bad\nnamespace N\nentity E key=k\n  attr a : U32\n", 3,
                     "has no plain attribute 'k'")
        self.refused("model Bad\nnamespace N\nentity E\n  ordered o : U64 -> N::X\n", 4,
                     "must be an entity with key= declared in the same model file")

    def test_the_model_name_matches_its_file(self):
        self.refused("model Other\nnamespace N\n", 1, "must live in a file named Other.kal")


if __name__ == "__main__":
    unittest.main()
