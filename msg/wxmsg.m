* Group 9: host file services.
#         4 The file %s could not be opened.
#         5 The file %s could not be read.
#         6 The file %s could not be written.
#         7 The directory %s could not be read.
