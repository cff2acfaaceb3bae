// Where a class collector's results go. A collector samples and computes; it tells this
// seam which instances it has (on a header pass) and what they measure now (on a data
// pass). Whether a console is listening, whether the alert tree already knows a counter,
// and where lines are kept is the seam's business, not the collector's.
#pragma once

#include "collectors/rtdc_tables.h"

/// Whether an announced instance writes its header lines.
enum class HeaderLines {
    when_sending,  // when a console is being served
    never,         // the instance is described again by a later announcement of the pass
};

/// When an announced instance's counters are registered for alert checks.
enum class TreeCounters {
    until_registered,  // until the first header pass completed; later passes add nothing
    always,            // on every header pass (the tree ignores what it already holds)
};

class ClassOutput {
  public:
    virtual ~ClassOutput() = default;

    /// Header pass: one instance of `class_name`, its counters described by `table` (whose
    /// offsets point into `record`, which must outlive the instance).
    virtual void announce(const char* class_name, CounterDef* table, void* record,
                          HeaderLines lines = HeaderLines::when_sending,
                          TreeCounters tree = TreeCounters::until_registered) = 0;

    /// Data pass: the current values of one announced instance, sent when a console wants
    /// them.
    virtual void report(const void* record, const CounterDef* table) = 0;

    /// Data pass of a class that may have been announced while nobody listened: its values
    /// when a console wants them, otherwise its counters are registered if still due.
    virtual void report_or_register(const char* class_name, CounterDef* table, void* record) = 0;

    /// Process class, header pass: one process's header lines, ids derived from its pid,
    /// when a console is served. False when the header lines have no room left for all of
    /// them: a console never sees half a process.
    virtual bool announce_process(const char* name, long pid, CounterDef* table,
                                  const void* record) = 0;

    /// One process's counters for alert checks, whenever it has none registered; false
    /// when they could not be (no tree yet, or no memory).
    virtual bool register_process(const char* name, long pid, const CounterDef* table,
                                  void* record) = 0;

    /// One process's values, ids derived from its pid; written on every data pass, as
    /// consoles count on a process's lines even while they do not listen.
    virtual void report_process(long pid, CounterDef* table, const void* record) = 0;

    /// A process that ended, or changed its name, leaves the alert tree.
    virtual void withdraw_process(const char* name, long pid) = 0;

    /// An instance that is gone: its counters ("<class>-><instance>") leave the alert tree.
    /// True when there were some.
    virtual bool withdraw(const char* class_name, const char* instance) = 0;
};
