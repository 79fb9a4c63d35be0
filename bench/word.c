/* The smallest program that answers with one word: the spawn floor's child. */
#include <stdio.h>

int main(void) { return fputs("on", stdout) == EOF; }
