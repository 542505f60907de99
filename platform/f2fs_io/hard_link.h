/// Asking before linking. An extension of the library.
#pragma once

#include <cstdint>

/// What `createHardLink` with the same paths would answer, as far as that can be told beforehand: 0
/// when it would link the two, or they are one file already, else its errno. EBUSY for a file that
/// is open for writing, EBADE for another owner, group, mode or attribute, EXDEV for another file
/// system or mount, EILSEQ for another length, ELOOP for a symbolic link. Only with `comparesBytes`
/// are the bytes looked at; they have to be all the same (else EILSEQ). Changes nothing.
int32_t checkHardLink(const char* keptPath, const char* duplicatePath, bool comparesBytes);
