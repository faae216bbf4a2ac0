"""The network in PyTorch, the same graph as the engine's tables, with batch normalisation.

    image 192x192 --> backbone: 24x24x64 --> 12x12x96 --> 6x6x128
                        |                      |             |
                        conf.0 loc.0           conf.1 loc.1  conf.2 loc.2
                        +----------------------+-------------+--> 2088 x (2 scores, 4 offsets)

Every convolution but the last of each head is followed by a batch normalisation (Ioffe and
Szegedy, 2015), which is folded into the convolution's weight and bias when the weights leave.
"""

import torch
from torch import nn
from torch.nn import functional

from training import weight_block

# Block, input and output channels, stride, and the engine's layers whose names the biases bear.
STAGES = [
    [("conv2", 16, 32, 1, "238", "241"), ("conv3", 32, 32, 2, "244", "247"),
     ("conv4", 32, 32, 1, "250", "253"), ("conv5", 32, 64, 2, "256", "259"),
     ("conv6", 64, 64, 1, "262", "265"), ("conv7", 64, 64, 1, "268", "271")],
    [("conv9", 64, 96, 2, "305", "308"), ("conv10", 96, 96, 1, "311", "314"),
     ("conv11", 96, 96, 1, "317", "320")],
    [("conv12", 96, 96, 2, "323", "326"), ("conv13", 96, 128, 1, "329", "332")],
]

# The branches of conv8: part, layer, input and output channels, kernel, dilation, whether a
# rectifier follows.
BRANCHES = [
    [("branch0.0", "274", 64, 8, 1, 1, False), ("branch0.1", "276", 8, 16, 3, 1, True),
     ("branch0.2", "279", 16, 16, 3, 2, False)],
    [("branch1.0", "281", 64, 8, 1, 1, False), ("branch1.1", "283", 8, 16, 3, 1, True),
     ("branch1.2", "286", 16, 16, 3, 3, False)],
    [("branch2.0", "288", 64, 8, 1, 1, False), ("branch2.1", "290", 8, 12, 3, 1, True),
     ("branch2.2", "293", 12, 16, 3, 1, True), ("branch2.3", "296", 16, 16, 3, 5, False)],
]

HEADS = [(64, 3), (96, 2), (128, 2)]  # channels of the map, priors in each of its cells


class Unit(nn.Module):
    """A convolution, its batch normalisation if it has one, and its rectifier if it has one.

    `weight_name` and `bias_name` name the two tensors of the folded convolution in the block.
    """

    def __init__(self, weight_name, bias_name, inputs, outputs, kernel=1, stride=1, dilation=1,
                 groups=1, rectified=True, normalised=True):
        super().__init__()
        self.weight_name, self.bias_name = weight_name, bias_name
        self.convolution = nn.Conv2d(inputs, outputs, kernel, stride, kernel // 2 * dilation,
                                     dilation, groups, bias=not normalised)
        self.normalisation = nn.BatchNorm2d(outputs) if normalised else None
        self.rectified = rectified
        nn.init.kaiming_normal_(self.convolution.weight, mode="fan_out", nonlinearity="relu")

    def forward(self, x):
        x = self.convolution(x)
        if self.normalisation is not None:
            x = self.normalisation(x)
        return functional.relu(x, inplace=True) if self.rectified else x

    def folded(self):
        """Weight and bias of the one convolution that does the same, in double precision."""
        weight = self.convolution.weight.detach().double()
        norm = self.normalisation
        if norm is None:
            return weight, self.convolution.bias.detach().double()
        scale = norm.weight.detach().double() / (norm.running_var.double() + norm.eps).sqrt()
        shift = norm.bias.detach().double() - norm.running_mean.double() * scale
        return weight * scale.view(-1, 1, 1, 1), shift

    def set(self, weight, bias):
        """Takes a folded convolution over; a normalisation then leaves values as they are."""
        self.convolution.weight.data.copy_(weight)
        norm = self.normalisation
        if norm is None:
            self.convolution.bias.data.copy_(bias)
            return
        norm.running_mean.zero_()
        norm.running_var.fill_(1 - norm.eps)
        norm.weight.data.fill_(1)
        norm.bias.data.copy_(bias)

    def fold(self):
        """Becomes the one convolution that does the same."""
        if self.normalisation is None:
            return
        weight, bias = self.folded()
        self.convolution.weight.data.copy_(weight)
        self.convolution.bias = nn.Parameter(bias.float())
        self.normalisation = None

    def normalise_like(self, values):
        """Gives the normalisation the statistics of `values`, without changing what it does now."""
        norm = self.normalisation
        mean = values.mean((0, 2, 3))
        variance = values.var((0, 2, 3), unbiased=False)
        norm.running_mean.copy_(mean)
        norm.running_var.copy_(variance)
        norm.bias.data.add_(mean)
        norm.weight.data.copy_((variance + norm.eps).sqrt())


def separable(block, inputs, outputs, stride, depthwise, pointwise):
    """A 3x3 over each channel and a 1x1 over all."""
    return nn.Sequential(
        Unit(f"{block}.0.weight", f"{depthwise}_bias", inputs, inputs, 3, stride, groups=inputs),
        Unit(f"{block}.3.weight", f"{pointwise}_bias", inputs, outputs))


class MultiBranch(nn.Module):
    """conv8: three branches that look ever further, and a shortcut beside them."""

    def __init__(self):
        super().__init__()
        self.branches = nn.ModuleList(
            nn.Sequential(*(Unit(f"conv8.{part}.conv.weight", f"{layer}_bias", inputs, outputs,
                                 kernel, dilation=dilation, rectified=rectified)
                            for part, layer, inputs, outputs, kernel, dilation, rectified in units))
            for units in BRANCHES)
        self.mix = Unit("conv8.ConvLinear.conv.weight", "299_bias", 48, 64, rectified=False)
        self.shortcut = Unit("conv8.shortcut.conv.weight", "301_bias", 64, 64, rectified=False)

    def forward(self, x):
        joined = torch.cat([branch(x) for branch in self.branches], 1)
        return functional.relu(self.mix(joined) + self.shortcut(x))


def head(name, channels, outputs):
    return nn.Sequential(
        Unit(f"{name}.0.weight", f"{name}.0.bias", channels, channels, 3, groups=channels),
        Unit(f"{name}.2.weight", f"{name}.2.bias", channels, outputs, rectified=False,
             normalised=False))


class FaceNetwork(nn.Module):
    """Scores and offsets for all priors of a picture."""

    def __init__(self):
        super().__init__()
        self.stages = nn.ModuleList(
            nn.Sequential(*(separable(*block) for block in blocks)) for blocks in STAGES)
        self.stages[0].insert(0, Unit("conv1.0.weight", "235_bias", 3, 16, 3, 2))
        self.stages[0].append(MultiBranch())
        self.conf = nn.ModuleList(head(f"conf.{i}", channels, 2 * priors)
                                  for i, (channels, priors) in enumerate(HEADS))
        self.loc = nn.ModuleList(head(f"loc.{i}", channels, 4 * priors)
                                 for i, (channels, priors) in enumerate(HEADS))
        for conf in self.conf:  # at first a face is seen at one prior in a hundred
            conf[-1].convolution.weight.data.mul_(0.1)
            conf[-1].convolution.bias.data.copy_(
                torch.tensor([2.3, -2.3]).repeat(len(conf[-1].convolution.bias) // 2))
        for loc in self.loc:
            loc[-1].convolution.weight.data.mul_(0.1)
            loc[-1].convolution.bias.data.zero_()
        self.to(memory_format=torch.channels_last)

    def forward(self, images):
        """`images` n x 3 x 192 x 192, B, G, R from 0 to 1.

        Returns the two logits (no face, face) n x 2088 x 2, before the softmax, and the offsets
        n x 2088 x 4, in the order of the priors.
        """
        logits, boxes = [], []
        x = images.contiguous(memory_format=torch.channels_last)
        for stage, conf, loc in zip(self.stages, self.conf, self.loc):
            x = stage(x)
            logits.append(conf(x).permute(0, 2, 3, 1).reshape(len(images), -1, 2))
            boxes.append(loc(x).permute(0, 2, 3, 1).reshape(len(images), -1, 4))
        return torch.cat(logits, 1), torch.cat(boxes, 1)

    def units(self):
        return [module for module in self.modules() if isinstance(module, Unit)]

    def folded(self):
        """All tensors of the weight block by name, float32 arrays."""
        tensors = {}
        for unit in self.units():
            weight, bias = unit.folded()
            tensors[unit.weight_name] = weight.float().cpu().contiguous().numpy()
            tensors[unit.bias_name] = bias.float().cpu().numpy()
        return tensors

    def block_shapes(self):
        """The extents of the weight block's tensors by name."""
        return {name: values.shape for name, values in self.folded().items()}

    def load(self, path):
        """Takes the weights of a block over. Call restore_normalisation before training on."""
        self.set_tensors(weight_block.read(path, self.block_shapes()))

    def take(self, block):
        """The same from the bytes of a block."""
        self.set_tensors(weight_block.tensors(block, "weights", self.block_shapes()))

    def set_tensors(self, tensors):
        with torch.no_grad():
            for unit in self.units():
                unit.set(torch.from_numpy(tensors[unit.weight_name]),
                         torch.from_numpy(tensors[unit.bias_name]))

    def save(self, path):
        """Folds the normalisations and writes the weight block."""
        weight_block.write(path, self.folded())

    def fold(self):
        """Does without normalisations from now on: a third faster in training."""
        for unit in self.units():
            unit.fold()

    def restore_normalisation(self, images):
        """Gives loaded weights their normalisations back, with the statistics of `images`."""
        def restore(unit, inputs, _):
            if unit.normalisation is not None:
                unit.normalise_like(unit.convolution(inputs[0]))

        handles = [unit.register_forward_hook(restore) for unit in self.units()]
        self.eval()
        with torch.no_grad():
            self(images)
        for handle in handles:
            handle.remove()

    def measure_normalisation(self, batches):
        """Replaces the running statistics by those over all `batches` of images."""
        norms = [module for module in self.modules() if isinstance(module, nn.BatchNorm2d)]
        if not norms:
            return
        momentum = [norm.momentum for norm in norms]
        for norm in norms:
            norm.reset_running_stats()
            norm.momentum = None  # the plain mean
        self.train()
        with torch.no_grad():
            for images in batches:
                self(images)
        for norm, value in zip(norms, momentum):
            norm.momentum = value
        self.eval()


def to_images(pictures):
    """Bytes n x 192 x 192 x 3 as the detector packs them -> the network's input."""
    return torch.as_tensor(pictures).permute(0, 3, 1, 2).float().div_(255)
