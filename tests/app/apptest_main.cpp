// The controller tests on whatever session bus the environment names.
#include "apptest.h"

int main(int argc, char** argv)
{
    return runAppTests(argc, argv);
}
