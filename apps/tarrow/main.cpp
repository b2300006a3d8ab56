// tarrow: a command-line bookmark manager for Pinboard on the data layer.

#include "TarrowApplication.h"
#include "TarrowText.h"

int main(int argc, char** argv) {
  TarrowSelectLanguage();
  TarrowApplication application;
  return application.run(argc, argv);
}
