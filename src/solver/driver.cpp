#include <omp.h>

#include "solver/solver.h"

static int InitArgument = 0;
static volatile long InitSum = 0;

void libsubgame_init(int n) {
  InitArgument = n;
  long sum = 0;
#pragma omp parallel for schedule(dynamic, 1) reduction(+ : sum)
  for (int i = 0; i < 1000; i++) sum += i;
  InitSum = sum;
}
