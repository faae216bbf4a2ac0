"""How the network gets its weights.

    pictures with boxes --faces, picture_store--> memory --views, scenes, pastes--> scenes
      --camera--> frames --detector_input--> the bytes that the detector's network sees
      --assignment, loss, network, trainer--> weights --weight_block, average, calibrate-->
      engine/model/weights.bin --evaluate--> figures

`python3 -m training.train --data PATH` makes a weight block, `python3 -m training.evaluate --data
PATH` measures the detector that is built from it. README.md tells why it is done in this way,
MODEL_CARD.md what came out.
"""
