// Plug-in host link: filled in by the plug-in work.
