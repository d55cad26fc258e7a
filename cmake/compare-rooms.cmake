# Fails unless the picture of the rooms in the file `page` matches the one that the build wrote into `rooms`.
file(READ ${page} text)
file(READ ${rooms} built)
string(FIND "${text}" "flowchart TD\n${built}```" found)
if(found EQUAL -1)
    message(FATAL_ERROR "The picture of the rooms in ${page} is not that of the build:\n${built}")
endif()
