// The program under another name than main(), to be run inside a test.

#define main quorvel_main // NOLINT: the one way to have the same source under another name
int main(int argc, char **argv);
#include "tool/main.cpp"
