#error "a public header must not need <yajl/yajl_parse.h>"
