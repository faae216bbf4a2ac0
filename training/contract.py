"""What the detector fixes and the training code has to meet."""

SIDE = 192  # of the network's input, in pixels
PRIOR_COUNT = 2088
WEIGHT_BYTES = 391296  # of the weight block

THRESHOLD = 0.65  # a face scores above it
MOST_REPORTED = 6  # boxes of one frame
