#pragma once
// The subcommands of the sonto binary that run without a display.

// sonto info FILE...: what the file reader makes of each file.
int sontoInfoCommand(int argc, char** argv);

// sonto devices: the output device catalogue, the default marked.
int sontoDevicesCommand(int argc, char** argv);

// sonto check [--json] SHOW...: what the reader mended in each show, and the safety check's concerns.
int sontoCheckCommand(int argc, char** argv);

// sonto render WORKSPACE -o OUT.wav [...]: the show rendered offline, with a script of triggers.
int sontoRenderCommand(int argc, char** argv);
