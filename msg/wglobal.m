* Group 1: general codes. The printer puts the VRTA_ERROR/WARNING/NOTE prefix
* in front of these itself, so the texts carry none.
#         1 No more substitutions or input.
#         3 Out of memory.
#         5 Internal failure. %s
#        11 The data server speaks a different protocol level; only the oldest message forms are used.
#        14 The variable number is out of range.
#        15 The operation was stopped by an arithmetic or internal trap.
#        20 The request %s is not available yet.
