#include "ui/OstrandApp.h"

int main(int argc, char** argv) {
    return ostrand::runDesktopApp(argc, argv);
}
