// Marks the library's public surface. The library is built with hidden visibility, so only what
// carries ZVR_EXPORT is visible to the host.

#ifndef ZVR_MEDIA_PROXY_EXPORT_H_
#define ZVR_MEDIA_PROXY_EXPORT_H_

#define ZVR_EXPORT __attribute__((visibility("default")))

#endif  // ZVR_MEDIA_PROXY_EXPORT_H_
