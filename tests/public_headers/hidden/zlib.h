#error "a public header must not need <zlib.h>"
