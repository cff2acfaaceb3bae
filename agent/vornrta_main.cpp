#include "agent/rtdc_server.h"

int main(int argc, char** argv) { return rtdc_main(argc, argv); }
