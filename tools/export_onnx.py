#!/usr/bin/python3
"""Writes the embedded model as an ONNX file, for other runtimes to run.

    print_model > model.json
    tools/export_onnx.py --table model.json --output network.onnx

All it knows of the network is what print_model prints, and the weight block. The file's input
`input` is 1x3x192x192 float: planes B, G, R with values from 0 to 1, that is, bytes that the caller
has divided by 255. Its outputs are `scores`, 1x2088x2, and `Reshape_0`, 1x2088x4, in the order of
the prior boxes.

ONNX keeps a picture as channel planes, this project with the channels innermost. Convolutions are
exported as they are; where a map is flattened into a row, a Transpose goes before it, so that from
there on the order is the project's. The tensors behind it have the extents n*h, w, c.
"""

import argparse
import json
import pathlib
import sys

import numpy
import onnx
from onnx import TensorProto, helper, numpy_helper

OPSET = 11  # the oldest that has all that is needed here, for old runtimes
IR_VERSION = 6
INPUT_SHAPE = [1, 3, 192, 192]
OUTPUT_CHANNELS = {"scores": 2, "Reshape_0": 4}
PRIOR_COUNT = 2088
DEFAULT_WEIGHTS = pathlib.Path(__file__).resolve().parent.parent / "engine/model/weights.bin"
CHANNELS_FIRST, FLOAT32, RELU, ADD = 1, 0, 1, 0  # codes in the tables


def read_weights(table, block):
    """The constant tensors by name: output channels, input channels, height, width; a bias is flat."""
    if len(block) != table["weightBytes"]:
        raise ValueError(f"the weight block has {len(block)} bytes, not {table['weightBytes']}")
    weights = {}
    for row in table["tensors"]:
        if (row["layout"], row["dataType"]) != (CHANNELS_FIRST, FLOAT32):
            raise ValueError(f"tensor {row['name']} has an unknown layout or data type")
        n, h, w, c = row["dims"]
        values = numpy.frombuffer(block, "<f4", n * h * w * c, row["offset"])
        is_bias = row["name"].endswith("bias")
        weights[row["name"]] = values if is_bias else values.reshape(n, c, h, w)
    return weights


class Graph:
    """Grows an ONNX graph layer by layer."""

    def __init__(self, table, weights):
        self.nodes = []
        self.constants = []
        self.weights = weights
        self.in_planes = {table["input"]}  # tensors whose channels are planes
        for row in table["layers"]:
            self.add(row)

    def add(self, row):
        makers = {
            "Conv": self.convolution,
            "DepthwiseConv": self.convolution,
            "Relu": self.relu,
            "Add": self.sum,
            "Concat": self.concatenation,
            "Reshape": self.reshape,
            "Softmax": self.softmax,
        }
        if row["type"] not in makers:
            raise ValueError(f"layer {row['name']}: no way to export a {row['type']}")
        makers[row["type"]](row, row["io"][:-1], row["io"][-1])

    def emit(self, operator, inputs, output, **attributes):
        self.nodes.append(
            helper.make_node(operator, inputs, [output], name=f"{operator}:{output}", **attributes)
        )

    def constant(self, name, values):
        self.constants.append(numpy_helper.from_array(values, name))
        return name

    def pass_on_order(self, inputs, output):
        """Whether the channels of inputs and output are planes."""
        planes = {name in self.in_planes for name in inputs}
        if len(planes) != 1:
            raise ValueError(f"{output} joins tensors of different order")
        if planes == {True}:
            self.in_planes.add(output)
            return True
        return False

    def convolution(self, row, inputs, output):
        (kernel_w, kernel_h, left, right, top, bottom) = row["ints"][:6]
        (stride_w, stride_h, dilation_w, dilation_h, groups) = row["ints"][6:11]
        if not self.pass_on_order(inputs, output):
            raise ValueError(f"{output} convolves a flattened tensor")
        names = [self.constant(name, self.weights[name]) for name in row["weights"]]
        self.emit(
            "Conv",
            inputs + names,
            output,
            kernel_shape=[kernel_h, kernel_w],
            pads=[top, left, bottom, right],
            strides=[stride_h, stride_w],
            dilations=[max(dilation_h, 1), max(dilation_w, 1)],
            group=max(groups, 1),
        )

    def relu(self, row, inputs, output):
        if row["ints"][0] != RELU:
            raise ValueError(f"{output} is an activation of unknown kind {row['ints'][0]}")
        self.pass_on_order(inputs, output)
        self.emit("Relu", inputs, output)

    def sum(self, row, inputs, output):
        if row["ints"][0] != ADD:
            raise ValueError(f"{output} is a binary operation of unknown kind {row['ints'][0]}")
        self.pass_on_order(inputs, output)
        self.emit("Add", inputs, output)

    def concatenation(self, row, inputs, output):
        self.emit("Concat", inputs, output, axis=1 if self.pass_on_order(inputs, output) else 2)

    def reshape(self, row, inputs, output):
        (source,) = inputs
        n, h, w, c = row["ints"][:4]
        if (n, h) != (1, 1):
            raise ValueError(f"{output} is reshaped to more than one row")
        if source in self.in_planes:
            self.emit("Transpose", [source], f"{source}_channels_last", perm=[0, 2, 3, 1])
            source = f"{source}_channels_last"
        target = self.constant(f"{output}_shape", numpy.array([1, w, c], numpy.int64))
        self.emit("Reshape", [source, target], output)

    def softmax(self, row, inputs, output):
        if self.pass_on_order(inputs, output):
            raise ValueError(f"{output} is a softmax over planes")
        self.emit("Softmax", inputs, output, axis=2)


def export(table, block):
    """The checked ONNX model."""
    graph = Graph(table, read_weights(table, block))
    outputs = [
        helper.make_tensor_value_info(
            name, TensorProto.FLOAT, [1, PRIOR_COUNT, OUTPUT_CHANNELS[name]]
        )
        for name in table["outputs"]
    ]
    picture = helper.make_tensor_value_info(table["input"], TensorProto.FLOAT, INPUT_SHAPE)
    model = helper.make_model(
        helper.make_graph(graph.nodes, "face_detection", [picture], outputs, graph.constants),
        producer_name="export_onnx",
        opset_imports=[helper.make_opsetid("", OPSET)],
        ir_version=IR_VERSION,
    )
    onnx.checker.check_model(model)
    # Also infers every shape from the input's and compares the outputs' with those stated above.
    return onnx.shape_inference.infer_shapes(model, check_type=True, strict_mode=True)


def main():
    parser = argparse.ArgumentParser(
        description=__doc__.split("\n\n")[0], formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("--table", type=pathlib.Path, required=True, help="output of print_model")
    parser.add_argument("--weights", type=pathlib.Path, default=DEFAULT_WEIGHTS)
    parser.add_argument("--output", type=pathlib.Path, required=True, help="the ONNX file")
    arguments = parser.parse_args()
    try:
        model = export(json.loads(arguments.table.read_text()), arguments.weights.read_bytes())
        onnx.save(model, str(arguments.output))
    except (OSError, ValueError, onnx.checker.ValidationError) as error:
        sys.exit(f"export_onnx: {error}")
    except KeyError as error:
        sys.exit(f"export_onnx: the table has no {error}")


if __name__ == "__main__":
    main()
