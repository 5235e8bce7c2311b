/* Entry point of the tunnel-bundle daemon. */
#include "tbdl_main.h"

int main(int argc, char **argv)
{
    return TBDL_MAIN_Run(argc, argv);
}
