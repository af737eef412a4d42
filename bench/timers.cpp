#include "Contest.h"
int main(int argc, char** argv) { return bench::contest(argc, argv, {}); }
