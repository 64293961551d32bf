"""The model scripts' edits of a converted IR (runtime options, Q4_1 zero points): model_scripts_test.py MODELS_DIR [unittest args]."""
import shutil
import sys
import tempfile
import unittest
from pathlib import Path

import gguf
import numpy as np
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


class Q4_1Weights(unittest.TestCase):
    def test_smollm2_weights_are_the_ggufs_own_values(self):
        # Reference rows as the GGUF defines them: scale * q + min per group of 32.
        reference, tensors = {}, 0
        for tensor in gguf.GGUFReader(fixtures.smollm2_gguf()).tensors:
            if tensor.tensor_type != fixtures.Q4_1:
                continue
            tensors += 1
            blocks = np.frombuffer(tensor.data.tobytes(), np.uint8).reshape(tensor.data.shape[0], -1, 20)
            scale = blocks[..., 0:2].copy().view(np.float16).astype(np.float32)
            low = blocks[..., 2:4].copy().view(np.float16).astype(np.float32)
            q = np.concatenate([blocks[..., 4:] & 15, blocks[..., 4:] >> 4], axis=-1)
            for row in range(q.shape[0]):
                key = q[row].tobytes() + scale[row].astype(np.float16).tobytes()
                reference[key] = (scale[row] * q[row] + low[row], scale[row])
        model = ov.Core().read_model(Path(MODELS) / "smollm2" / "openvino_model.xml")
        checked, worst = 0, 0.0
        for subtract in (op for op in model.get_ordered_ops() if op.get_type_name() == "Subtract"):
            quants = subtract.input_value(0).get_node().input_value(0).get_node()
            if quants.get_element_type() != ov.Type.u4:
                continue
            rows, groups, size = quants.shape
            packed = np.asarray(quants.data, np.uint8).reshape(-1)
            q = np.stack([packed & 15, packed >> 4], axis=-1).reshape(rows, groups, size)
            zero = subtract.input_value(1).get_node()
            if zero.get_type_name() == "Convert":
                zero = zero.input_value(0).get_node()
            zero = np.asarray(zero.data, np.float32)
            if zero.size != rows * groups:  # packed 4-bit
                zero = np.stack([zero.astype(np.uint8) & 15, zero.astype(np.uint8) >> 4], axis=-1)
            zero = zero.reshape(rows, groups, 1)
            multiply = next(iter(subtract.output(0).get_target_inputs())).get_node()
            scale = np.asarray(multiply.input_value(1).get_node().data, np.float32).reshape(rows, groups, 1)
            for row in range(rows):
                want, step = reference[q[row].tobytes() + scale[row].astype(np.float16).tobytes()]
                worst = max(worst, float((np.abs((q[row] - zero[row]) * scale[row] - want) / step).max()))
            checked += 1
        self.assertEqual(checked, tensors)
        # In quantization steps: within a hundredth of a step of the GGUF's value.
        self.assertLess(worst, 0.01)


if __name__ == "__main__":
    MODELS = sys.argv.pop(1)
    unittest.main()
