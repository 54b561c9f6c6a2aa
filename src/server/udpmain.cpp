#include "server/startup.h"

int main() { return zelvan::run(); }
