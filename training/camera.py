"""What a camera and a codec make of a scene: light, lens, sensor, 4:2:0, compression.

    scenes, linear enough --light, colours--> --blur--> --noise--> --Y, U, V planes--> --DCT
    coefficients rounded--> bytes

Each fault hits a random part of the batch, and is stronger or weaker from scene to scene.
"""

import math

import torch
from torch.nn import functional

# Luma and chroma from R, G, B of 0 to 255: BT.601, limited range.
TO_YUV = torch.tensor([[0.2568, 0.5041, 0.0979], [-0.1482, -0.2910, 0.4392],
                       [0.4392, -0.3678, -0.0714]])
YUV_OFFSET = torch.tensor([16.0, 128.0, 128.0])

# The quantisation that the JPEG standard gives as examples, at quality 50.
LUMA_STEPS = torch.tensor([
    [16, 11, 10, 16, 24, 40, 51, 61], [12, 12, 14, 19, 26, 58, 60, 55],
    [14, 13, 16, 24, 40, 57, 69, 56], [14, 17, 22, 29, 51, 87, 80, 62],
    [18, 22, 37, 56, 68, 109, 103, 77], [24, 35, 55, 64, 81, 104, 113, 92],
    [49, 64, 78, 87, 103, 121, 120, 101], [72, 92, 95, 98, 112, 100, 103, 99]]).float()
CHROMA_STEPS = torch.full((8, 8), 99.0)
CHROMA_STEPS[:4, :4] = torch.tensor([[17, 18, 24, 47], [18, 21, 26, 66], [24, 26, 56, 99],
                                     [47, 66, 99, 99]]).float()

DARK_SHARE, BLUR_SHARE, COARSE_SHARE, NOISE_SHARE, CODED_SHARE = 0.12, 0.22, 0.12, 0.4, 0.4


def cosines():
    """The 8 x 8 matrix of the discrete cosine transform, orthonormal."""
    rows = torch.cos(math.pi * (torch.arange(8) + 0.5)[None] * torch.arange(8)[:, None] / 8) / 2
    rows[0] /= math.sqrt(2)
    return rows


def light(random, scenes):
    """Exposure, contrast, colour casts, saturation, a lamp from one side; some scenes dark."""
    count = len(scenes)
    # x + g x (1 - x): like a gamma curve, and much cheaper.
    bend = random.uniform(-0.6, 0.7, count)
    gain = torch.exp(random.normal(count) * 0.18)
    dark = random.chance(DARK_SHARE, count)
    gain = torch.where(dark, gain * random.log_uniform(0.2, 0.7, count), gain)
    x = scenes.mul_(1 / 255)
    x = x.add_(x * (1 - x) * bend[:, None, None, None])
    saturation = torch.where(random.chance(0.06, count), torch.zeros_like(gain),
                             torch.exp(random.normal(count) * 0.25))[:, None, None]
    grey = torch.tensor([0.299, 0.587, 0.114], device=x.device).expand(3, 3)
    cast = torch.exp(random.normal(count, 3) * 0.09)
    colours = (torch.eye(3, device=x.device) * saturation + grey * (1 - saturation))
    colours = colours * (cast * gain[:, None])[:, :, None] * 255
    lift = random.normal(count) * 8
    x = torch.baddbmm(lift[:, None, None], colours, x.flatten(2)).view_as(scenes)
    rows = random.chance(0.2, count).nonzero()[:, 0]
    if len(rows):
        at = torch.linspace(-1, 1, x.shape[-1], device=x.device)
        slope = random.normal(len(rows), 2) * 0.35
        ramp = slope[:, 0, None, None] * at + slope[:, 1, None, None] * at[:, None]
        x[rows] *= torch.exp(ramp)[:, None]
    return x


def blur(random, scenes):
    """Out of focus or moved: a Gaussian of 7 x 7 that may be longer one way."""
    rows = random.chance(BLUR_SHARE, len(scenes)).nonzero()[:, 0]
    if len(rows) == 0:
        return scenes
    count = len(rows)
    at = torch.arange(-3.0, 4.0, device=scenes.device)
    angle = random.uniform(0, math.pi, count)[:, None, None]
    along = at * angle.cos() + at[:, None] * angle.sin()
    across = at[:, None] * angle.cos() - at * angle.sin()
    wide = random.log_uniform(0.4, 1.8, count)[:, None, None]
    narrow = wide * random.uniform(0.3, 1, count)[:, None, None]
    kernel = torch.exp(-(along / wide) ** 2 / 2 - (across / narrow) ** 2 / 2)
    kernel = (kernel / kernel.sum((1, 2), keepdim=True)).repeat_interleave(3, 0)[:, None]
    part = functional.pad(scenes[rows], (3, 3, 3, 3), mode="replicate")
    scenes[rows] = functional.conv2d(part.view(1, -1, *part.shape[2:]), kernel,
                                     groups=3 * count).view(count, *scenes.shape[1:])
    return scenes


def coarsen(random, scenes):
    """As from a camera of fewer pixels, enlarged."""
    rows = random.chance(COARSE_SHARE, len(scenes)).nonzero()[:, 0]
    if len(rows):
        side = int(random.uniform(0.4, 0.9, 1) * scenes.shape[-1])
        small = functional.interpolate(scenes[rows], side, mode="bilinear", align_corners=False)
        scenes[rows] = functional.interpolate(small, scenes.shape[-1], mode="bilinear",
                                              align_corners=False)
    return scenes


def noise(random, scenes):
    """Sensor noise, more of it in the dark; here and there as coarse as a codec leaves it."""
    rows = random.chance(NOISE_SHARE, len(scenes)).nonzero()[:, 0]
    if len(rows):
        count = len(rows)
        sigma = random.log_uniform(0.8, 12, count)[:, None, None, None]
        grain = random.normal(count, *scenes.shape[1:])
        scenes[rows] += grain * sigma
    return scenes


def to_planes(scenes):
    """n x 3 x s x s R, G, B -> float planes n x s x s and twice n x s/2 x s/2."""
    count, _, height, width = scenes.shape
    matrix, offset = TO_YUV.to(scenes.device), YUV_OFFSET.to(scenes.device)
    planes = torch.baddbmm(offset[None, :, None], matrix.expand(count, 3, 3), scenes.flatten(2))
    planes = planes.view(count, 3, height, width)
    chroma = functional.avg_pool2d(planes[:, 1:], 2)
    return planes[:, 0], chroma[:, 0], chroma[:, 1]


def quantise(planes, steps, transform):
    """Rounds the cosine coefficients of each 8 x 8 block; steps n x 8 x 8."""
    count, height, width = planes.shape
    blocks = planes.view(count, height // 8, 8, width // 8, 8).permute(0, 1, 3, 2, 4)
    steps = steps[:, None, None]
    waves = transform @ blocks.contiguous() @ transform.T
    waves = (waves / steps).round_().mul_(steps)
    blocks = transform.T @ waves @ transform
    return blocks.permute(0, 1, 3, 2, 4).reshape(count, height, width)


def code(random, planes):
    """Compression with the quality of JPEG 15 to 90."""
    y, u, v = planes
    rows = random.chance(CODED_SHARE, len(y)).nonzero()[:, 0]
    if len(rows) == 0:
        return planes
    quality = random.uniform(15, 90, len(rows))
    scale = torch.where(quality < 50, 50 / quality, 2 - quality / 50)[:, None, None]
    transform = cosines().to(y.device)
    for plane, steps in ((y, LUMA_STEPS), (u, CHROMA_STEPS), (v, CHROMA_STEPS)):
        plane[rows] = quantise(plane[rows], (steps.to(y.device) * scale).clamp(min=1), transform)
    return y, u, v


def shoot(random, scenes):
    """Scenes -> planes of whole numbers from 0 to 255."""
    scenes = noise(random, coarsen(random, blur(random, light(random, scenes)))).clamp_(0, 255)
    return tuple(plane.round_().clamp_(0, 255) for plane in code(random, to_planes(scenes)))
