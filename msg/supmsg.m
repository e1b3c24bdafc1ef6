* Group 4: support library and engine front end. No prefixes: the printer adds them.
#         1 No storage is available.
#         2 Invalid memory pool.
#         8 The row is held by another user.
#        10 The data server refused the request.
#        18 No domain name and no options were given.
#        19 The domain was not given or is not assigned.
#        20 The row could not be read.
#        21 %s %s is in use: %s.
#        22 A column description arrived out of sequence.
#        30 The %s message does not fit its length at %s.
#        31 The %s message cannot be built: %s is wrong.
#        32 A quoted string is not closed: %s
#        33 A word is longer than 1023 bytes: %s
#       101 The option %s is malformed.
#       102 %s is not an option of this engine.
#       126 Out of memory for a function result.
#       143 The function %s may not be used here.
#       144 Too few arguments for the function %s.
#       145 Too many arguments for the function %s.
#       146 The function %s wants a character argument here.
#       147 The function %s wants a numeric argument here.
#       149 The format width is out of range.
#       150 The number of decimals is out of range.
#       151 A character format cannot be used with a numeric column.
#       152 A numeric format cannot be used with a character column.
#       153 INPUT needs a character argument.
#       159 An arithmetic trap stopped the generated code.
#       161 An invalid operation stopped the generated code.
