/* The plug-in module's own object file: libkel_plugin.so is libkel linked whole, plus this
 * version string, which a host program can read with dlsym before it calls any entry point. */
const char kel_plugin_version[] = "kel plug-in 0.1.0";
