// Symbol visibility for the platform's declarations.
//
// The plug-in is built with hidden visibility; the platform's classes are
// marked visible so that their run-time type information (needed to catch a
// core exception thrown in one library in another) is one and the same across
// the framework, the core and the plug-in.
#pragma once

#define ZEVO_PLATFORM_API __attribute__((visibility("default")))
