#error "a public header must not need <yajl/yajl_common.h>"
