// Everything the agent shares between its threads, for the agent's own wiring: start-up,
// the request handlers and the collection thread, which set the flags of every side.
// Code outside agent/ includes only the header of the side it needs: packet/rtdc_state.h
// (data connection and packets), alerts/rtal_state.h (alert checking and its locks),
// agent/rtdc_log.h (log), agent/rtdc_server.h (request server), control/rta_banner.h.
#pragma once

#include "agent/rtdc_log.h"
#include "agent/rtdc_server.h"
#include "alerts/rtal_state.h"
#include "control/rta_banner.h"
#include "packet/rtdc_state.h"
