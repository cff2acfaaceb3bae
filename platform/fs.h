// Raw fs counters (declarations to come with its reader).
#pragma once

namespace platform {}
