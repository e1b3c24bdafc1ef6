* Group 2: the engine front end and its connections, logged through xpmlog.
* Messages that are logged carry their prefix; the ones used as the text of a
* failure (handed on with xrmksub and printed behind the code's own prefix) do not.
#         7 %3zListening on port %s.
#         8 %3zConnection accepted from %s.
#        29 %2zRecord %d has lost its start and was skipped.
#        50 %1zThe name of this host could not be found.
#        73 %1zThe socket layer could not be started.
#        74 %1zCould not connect to the data server on host %s.
#        75 %1zThe connection to the server was lost.
#        77 %2z%s
#        78 %3z%s
#        79 The connection to the server was lost earlier; assign the domain again.
#        80 %3zThe index %s was built in the background.
#        81 %1zAdding rows failed after %d rows were written.
#        82 %1zThe data port of the server could not be connected.
#        83 No server host was given for the domain.
#        84 %1zCould not connect to the name server on host %s.
#        85 The name server does not know the domain.
#        86 The name server could not be asked.
#        91 %1zThe password of user %s could not be read.
#        95 %2zThe server's protocol %s differs from this engine's %s.
#        97 %1zThe server did not greet the connection.
#        99 %1zThe new password is not valid.
#       100 %1zThe new password was used before.
#       101 %3zThe password was changed.
#       102 %1zThe password has expired.
#       105 The password could not be changed.
#       106 The login failed.
#       107 %1zThe new password is too short.
#       108 %3zUser %s (group %s) connected to %s server version %s on host %s.
#       110 %3zConnection of user %s to host %s closed.
#       115 %3zIndex %s was rebuilt.
#       116 %1zIndex %s could not be rebuilt.
#       117 %3zIndex %s was repaired.
#       118 %1zIndex %s could not be repaired.
#       119 %3zIndex %s needed no repair.
#       120 %1zIndex %s was dropped.
#       121 %1zIndex %s could not be read.
#       122 %3zThe table was repaired.
#       123 %1zThe host %s is not known.
#       124 %1zThe service %s is not known.
#       125 The list of ACL resources is empty.
#       126 A physical name may not begin with "(".
#       127 The table is in use by %s.
#       128 %3zThe WHERE clause cannot be processed by the server.
#       131 FIRSTOBS is above OBS for %s.
#       132 %2z%s has duplicate values of %s.
#       135 %1zThe operator port of the server could not be connected.
#       136 The login to the server failed.
#       140 %3zDELREC=YES is ignored: it takes the backup process, or ACLSPECIAL=YES before it.
#       210 %1zA wait on the connection failed.
#       227 %3zFree space of %s.%s is %s percent.
#       228 %2zCompression is not available at this server level; it is ignored.
#       232 %2zOnly the engine's own compression is available; it is used instead.
#       278 The name server is too old.
#       281 %1zThe domain could not be assigned.
#       286 %3zThe table is restricted.
#       291 %1zThe new password does not meet the rules.
#       292 %3zUser %s (group %s) connected to %s server version %s fix %s on host %s.
#       293 The rows of a "%s" server are in another data format, which this engine does not convert yet.
#       294 A table key or password is at most 12 characters.
