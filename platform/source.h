// The contract between the collectors and the operating system: plain structs of raw
// counters and the functions that fill them. Nothing outside platform/ opens a kernel file.
#pragma once

#include "platform/roots.h"
#include "platform/cpu.h"
#include "platform/config.h"
#include "platform/memory.h"
#include "platform/disk.h"
#include "platform/net.h"
#include "platform/fs.h"
#include "platform/process.h"
