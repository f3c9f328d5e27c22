// Anchor translation unit of libVQXScanInterface.so. The library's contents
// come whole from the module archives; this file only gives the shared
// library target a source of its own.
