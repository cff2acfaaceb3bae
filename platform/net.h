// Raw net counters (declarations to come with its reader).
#pragma once

namespace platform {}
