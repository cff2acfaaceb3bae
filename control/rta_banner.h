// Texts the agent prints about itself: in its start banner, usage text, status table and
// lock file. A leaf header: it names nothing else of the agent.
#pragma once

inline constexpr const char* kProgramName = "vornrta";
inline constexpr const char* kVersion = "V10.0-001";
inline constexpr const char* kBuildDate = "Feb 23 2012";
inline constexpr const char* kMakerNotice = "(c) Vornrta real-time performance agent";
