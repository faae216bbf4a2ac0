#!/usr/bin/python3
"""Writes an ONNX model that does nothing: one float in, the same float out. Running it shows what a
call of a runtime costs by itself.

    identity_model.py OUTPUT.onnx
"""

import sys

import onnx
from onnx import TensorProto, helper

if len(sys.argv) != 2:
    sys.exit(__doc__)
source, target = (
    helper.make_tensor_value_info(name, TensorProto.FLOAT, [1]) for name in ("input", "output")
)
node = helper.make_node("Identity", ["input"], ["output"])
graph = helper.make_graph([node], "identity", [source], [target])
model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 11)], ir_version=6)
onnx.save(model, sys.argv[1])
