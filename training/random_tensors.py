"""Random tensors on any device, repeatable."""

import hashlib
import math

import torch


class Random:
    """Random tensors from one generator, seeded once by all of the numbers."""

    def __init__(self, device, *numbers):
        self.device = device
        self.generator = torch.Generator(device)
        # The processor's generator looks at the lowest 32 bits of a seed alone.
        digest = hashlib.blake2b(repr(numbers).encode(), digest_size=4).digest()
        self.generator.manual_seed(int.from_bytes(digest, "little"))

    def uniform(self, low, high, *shape):
        return torch.rand(*shape, generator=self.generator, device=self.device) * (high - low) + low

    def log_uniform(self, low, high, *shape):
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
