"""Random tensors on any device, repeatable."""

import math

import torch


class Random:
    """Random tensors from one generator, seeded once."""

    def __init__(self, device, seed):
        self.device = device
        self.generator = torch.Generator(device)
        self.generator.manual_seed(seed)

    def uniform(self, low, high, *shape):
        return torch.rand(*shape, generator=self.generator, device=self.device) * (high - low) + low

    def logUniform(self, low, high, *shape):
        return torch.exp(self.uniform(math.log(low), math.log(high), *shape))

    def normal(self, *shape):
        return torch.randn(*shape, generator=self.generator, device=self.device)

    def chance(self, share, *shape):
        return torch.rand(*shape, generator=self.generator, device=self.device) < share

    def below(self, end, *shape):
        return torch.randint(end, shape, generator=self.generator, device=self.device)

    def pick(self, weights, count):
        return torch.multinomial(weights, count, True, generator=self.generator)

    def signs(self, *shape):
        return self.chance(0.5, *shape).float() * 2 - 1
