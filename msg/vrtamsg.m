* Group 0: the engine's own codes.
* A code's number is (bits 15..8) x 200 + (bits 7..0); e.g. 0x80000225 is 400 + 37 = 437.
* Lines: "#" [word] [number] text starts a message, "!" continues the last one,
* any other line is a comment. Texts carry their own %nz prefix.
#         1 %1zThe operation failed.
*
* Storage layer (0x800002xx errors, small positive warnings)
#       402 %2zThe index is in use, or the cluster has no free member slot.
#       403 %2zThe index must be rebuilt before it can be used.
#       404 %3zA new directory was created.
#       405 %2zA work path failed its checks; the default temporary directory is used instead.
#       406 %2zEnd of file reached.
#       407 %3zThe index file was changed by another user since it was last read.
#       409 %2zA partition file of the table is missing.
#       413 %2zThe revision of a file differs from the table's metadata.
#       414 %3zThe paths of a locked library were not changed.
#       415 %1zThe offset is out of range for the file.
#       416 %1zA quoted item in the path list is not closed.
#       418 %1zThe version of the file is not understood.
#       422 %1zInternal consistency failure in the storage layer.
#       428 %1zThe file or member already exists.
#       429 %1zThe state of the file or its lock was lost; the table must be closed.
#       430 %1zThe partition directory of the file is full.
#       431 %1zToo many open files.
#       432 %1zInvalid argument or call.
#       433 %1zThe library file header is not understood.
#       434 %1zA file lock request failed.
#       435 %1zThe file could not be mapped into memory.
#       436 %1zAccess to the file is denied.
#       437 %1zThe file, member or index was not found.
#       439 %1zOut of memory in the storage layer.
#       441 %1zNo space left on any path of the table.
#       442 %1zThe exit module cannot compress.
#       443 %1zThe path is not a directory.
#       444 %1zThe exit module cannot encrypt.
#       446 %1zInvalid file control command.
#       447 %1zA record is longer than the buffer that reads it.
#       448 %1zThe file is locked for reading by another process.
#       449 %1zThe table is in use by another task in this process.
#       450 %1zA read of the file failed.
#       453 %1zThe table's storage type is not known.
#       455 %1zA read of the file ended short.
#       459 %1zThe rows to be written are not in the state the request needs.
#       460 %1zA write to the file failed.
#       461 %1zThe file is locked for writing by another process.
#       462 %1zThe open mode conflicts with another open of the table in this process.
#       463 %1zWrong kind of table or open mode for this request.
#       464 %1zThe encryption key is not valid for the table.
#       465 %1zThe exit module could not convert a block.
#       466 %1zThe exit module could not be loaded.
#       467 %1zThe exit module refused to open the table.
#       468 %1zA converted block is larger than the I/O buffer.
#       469 %1zThe exit module could not restore a block.
#       470 %1zNo record locks are available.
#       473 %1zThe library file is shorter than its header says.
#       475 %1zThe date lies before the first date of the table.
#       478 %1zA generation request is not allowed in utility mode.
#       479 %1zInvalid generation number.
#       482 %1zA system call failed.
#       488 %1zNo encoding was given for the table.
#       489 %1zNo locale was given for the table.
#       490 %1zThe cluster members are not compatible.
#       491 %1zThe position lies past the end of the data.
#       492 %1zDynamic and plain opens of the table conflict.
#       493 %2zThe sort order of the table was not kept.
#       494 %1zThe table has no data file.
#       495 %1zThe table already has a constraint.
#       499 %1zThe member is a cluster or is in use.
#       664 %1zThe file already exists.
*
* Threads and locks
#       738 %1zA wait on a condition failed.
#       739 %1zA read/write lock request failed.
*
* Runtime: key blocks, sort, national language layer
#       801 %2zThe sort merge was interrupted.
#       806 %1zA key column has a type that cannot be keyed, or a sort record count or length is wrong.
#       807 %1zOut of memory.
#       808 %1zNo resources for a thread or thread key, or a read in the sort merge failed.
#       809 %1zInvalid sort algorithm.
#       810 %1zThe sort in memory failed.
#       811 %1zA sort spill file could not be written.
#       812 %1zThe sort merge could not start.
#       813 %1zThe sort was interrupted.
#       814 %1zInvalid encoding.
#       815 %1zThe transcoder could not be opened.
#       816 %1zInvalid locale.
#       819 %1zThe case table file is incomplete.
#       820 %1zInvalid byte table in a national language file.
#       821 %1zInvalid national language table path.
#       823 %1zSome values could not be transcoded.
#       825 %1zA sort input routine returned an invalid result.
#       826 %1zThe national language library could not be loaded.
#       831 %1zThe string manager could not be created.
#       832 %1zA pattern match failed.
*
* Indexes
#      1002 %2zThe index was left in an unfinished state.
#      1004 %3zNo more rows.
#      1009 %1zInvalid index options or options in conflict.
#      1011 %1zThe index tree could not be closed.
#      1014 %1zThe index tree has a different version.
#      1015 %1zThe index request failed.
#      1018 %1zThe index tree could not be opened.
#      1020 %1zA value could not be added to the index tree.
#      1021 %1zThe index descriptors could not be read.
#      1023 %1zA read of the index tree failed.
#      1024 %1zA value could not be updated in the index tree.
#      1025 %1zThe index cannot take this comparison.
#      1026 %1zThe index operation was interrupted.
#      1030 %1zOut of memory in the index layer.
#      1031 %1zA read of the index file failed.
#      1032 %1zInternal inconsistency in the index.
#      1033 %1zThe index segment is out of range.
#      1034 %1zInvalid segment size.
#      1035 %1zDuplicate key in a unique index.
#      1036 %1zThe index file has the wrong version.
#      1037 %1zA write to the index file failed.
#      1038 %1zThe index cannot be repaired; it must be rebuilt.
#      1039 %1zThe index needs repair.
#      1040 %1zToo many segments for the index.
#      1041 %1zThe index key is too long.
*
* WHERE
#      1201 %1zA WHERE request has a null handle or argument.
#      1202 %1zThe list of indexes or columns of the table is not available.
#      1203 %1zThe WHERE tree is malformed.
#      1204 %1zThe WHERE clause is in a form that is not understood.
#      1205 %1zThe WHERE clause could not be evaluated.
#      1206 %1zA key could not be made for the WHERE clause.
#      1208 %1zOut of memory in WHERE processing.
#      1209 %1zA column of the WHERE clause is not in the table.
#      1210 %1zThe request does not fit the WHERE plan.
#      1211 %1zA set in the WHERE clause holds other than constants.
#      1212 %1zThe WHERE clause cannot be used as a range.
#      1220 %1zThe WHERE clause has a syntax error.
#      1221 %1zAn operand of the WHERE clause has the wrong type.
#      1222 %1zThe WHERE clause is nested too deeply.
#      1232 %1zThe query is not understood.
#      1233 %1zAn aggregate stands where none is allowed.
#      1234 %1zA column of the query is neither grouped nor aggregated.
#      1235 %1zThe query was interrupted.
*
* Functions
#      1401 %1zFormat %s not found.
#      1402 %1zFunction %s not found.
