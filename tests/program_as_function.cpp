// The program as a function with another name than main(), which a test can call.

#define main quorvel_main // NOLINT: the one way to have the same source under another name
int main(int argc, char **argv);
#include "tool/main.cpp"
