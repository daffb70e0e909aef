// The solving library: worker team, solving thread and iteration.
#pragma once

// Makes the OpenMP team exist before the first command.
void libsubgame_init(int n);
