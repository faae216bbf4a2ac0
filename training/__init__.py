"""How the network gets its weights.

    pictures with boxes --faces, picture_store--> memory --views, scenes, pastes--> scenes
      --camera--> frames --detector_input--> the bytes that the detector's network sees
      --assignment, loss, network, trainer--> weights --weight_block, average, calibrate-->
      engine/model/weights.bin --evaluate--> figures

`python3 -m training.train --data PATH` makes a weight block, `python3 -m training.evaluate --data
PATH` measures the detector that is built from it. README.md tells why it is done in this way,
MODEL_CARD.md what came out.
"""

import importlib.util
import sys

_packages = {"cv2": "python3-opencv", "matplotlib": "python3-matplotlib", "numpy": "python3-numpy",
             "torch": "python3-torch"}
_missing = [name for name in _packages if importlib.util.find_spec(name) is None]
if _missing:
    _fault = f"{sys.executable} has no {', '.join(_missing)}. Debian's Python has them with " \
             f"{', '.join(_packages[name] for name in _missing)} (tools/install-dependencies)"
    if sys.argv[:1] == ["-m"]:  # a command, not a program's import
        print("training:", _fault, file=sys.stderr)
        sys.exit(2)
    raise ImportError(_fault)
