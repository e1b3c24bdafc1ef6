* Group 6: functions and formats. The printer puts the VRTA_ERROR/WARNING/NOTE
* prefix in front of these itself, so the texts carry none.
#         1 A function was called with a missing or malformed argument block.
#         2 The format %s is not available in this engine.
#         3 The format code is not recognized.
#         4 The format width or number of decimals is out of range.
