// export.h - marks what the shared library shows; everything else is hidden.
#ifndef TARN_UTIL_EXPORT_H
#define TARN_UTIL_EXPORT_H

#define TARN_EXPORT __attribute__((visibility("default")))

#endif
