// The contract between the collectors and the operating system: plain structs of raw
// counters and the functions that fill them. Nothing outside platform/ opens a kernel file.
// The build compiles one implementation, platform/<os>/, chosen for the target system.
//
// Errors, the same way across the contract: a reader returns true when it filled its
// output, and false with errno saying why (the output is then not to be used). Where a
// caller must tell kinds of failure apart, the reader returns a status whose `ok` value is
// success (ReadStatus, FsAnswer) and still leaves the cause in errno or its error field. A
// function that counts returns the count, or -1 with errno set. No exception leaves the
// layer, and nothing here writes to the log: the collectors decide what is worth saying.
#pragma once

#include "platform/roots.h"
#include "platform/cpu.h"
#include "platform/config.h"
#include "platform/memory.h"
#include "platform/disk.h"
#include "platform/net.h"
#include "platform/fs.h"
#include "platform/process.h"
#include "platform/process_identity.h"
#include "platform/privileges.h"
