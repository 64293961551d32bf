"""The model scripts' edit of an IR's runtime options: model_scripts_test.py MODELS_DIR [unittest args]."""
import shutil
import sys
import tempfile
import unittest
from pathlib import Path

import openvino as ov

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "tools"))
import make_llm_fixtures as fixtures  # noqa: E402

MODELS = None


class RuntimeOptions(unittest.TestCase):
    def setUp(self):
        self.dir = Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.dir)
        # tiny-llm as converted carries runtime options, one of them KV_CACHE_PRECISION.
        self.xml = self.dir / "openvino_model.xml"
        shutil.copyfile(Path(MODELS) / "tiny-llm" / "openvino_model.xml", self.xml)
        self.bin = Path(MODELS) / "tiny-llm" / "openvino_model.bin"
        self.original = self.xml.read_text()

    def options(self):
        info = ov.Core().read_model(self.xml, self.bin).get_rt_info()["runtime_options"]
        return {name: info[name].astype(str) for name in info.keys()}

    def test_replaces_the_converters_value_adds_the_rest_and_keeps_everything_else(self):
        before = self.options()
        self.assertIn("KV_CACHE_PRECISION", before)
        fixtures.write_runtime_options(self.xml, {"KV_CACHE_PRECISION": "u4", "DYNAMIC_QUANTIZATION_GROUP_SIZE": "64"})
        self.assertEqual(self.options(), before | {"KV_CACHE_PRECISION": "u4", "DYNAMIC_QUANTIZATION_GROUP_SIZE": "64"})
        self.assertEqual(self.xml.read_text().count("KV_CACHE_PRECISION"), 1)
        # Only the model's own rt_info changed: the layers above it are untouched.
        cut = self.original.rfind("\n\t<rt_info>\n")
        self.assertTrue(self.xml.read_text().startswith(self.original[:cut]))

    def test_an_ir_without_runtime_options_gets_them(self):
        start, end = self.original.index("\t\t<runtime_options>"), self.original.index("</runtime_options>\n") + 19
        self.xml.write_text(self.original[:start] + self.original[end:])
        fixtures.write_runtime_options(self.xml, {"KV_CACHE_PRECISION": "u8"})
        self.assertEqual(self.options(), {"KV_CACHE_PRECISION": "u8"})

    def test_a_file_without_model_rt_info_is_refused_untouched(self):
        text = self.original[:self.original.rfind("\n\t<rt_info>\n")] + "\n</net>\n"
        self.xml.write_text(text)
        with self.assertRaisesRegex(RuntimeError, "no model rt_info"):
            fixtures.write_runtime_options(self.xml, {"KV_CACHE_PRECISION": "u8"})
        self.assertEqual(self.xml.read_text(), text)


if __name__ == "__main__":
    MODELS = sys.argv.pop(1)
    unittest.main()
