# Run by CPack: lays out the tree of the package below the folder of DESTDIR.

set(PACKAGE $ENV{PACKAGE})
set(ARCHITECTURE $ENV{ARCHITECTURE})
set(BUILD $ENV{BUILD})
set(root $ENV{DESTDIR})
unset(ENV{DESTDIR}) # all that follows names the folder itself
set(sources ${CMAKE_CURRENT_LIST_DIR}/../..)

function(run)
    execute_process(COMMAND ${ARGN} COMMAND_ERROR_IS_FATAL ANY OUTPUT_QUIET)
endfunction()

function(put_file from folder)
    file(INSTALL ${from} DESTINATION ${root}/${folder} ${ARGN})
endfunction()

# Manuals and change logs lie packed, without a time in them.
function(put_packed from folder name)
    file(MAKE_DIRECTORY ${root}/${folder})
    configure_file(${from} ${root}/${folder}/${name} COPYONLY)
    run(gzip -9nf ${root}/${folder}/${name})
endfunction()

# A stripped executable, or a library.
function(put_binary from folder)
    get_filename_component(name ${from} NAME)
    put_file(${from} ${folder} ${ARGN})
    if(ARCHITECTURE STREQUAL armel)
        run(arm-linux-gnueabi-strip --remove-section=.comment ${root}/${folder}/${name})
    else()
        run(strip --remove-section=.comment ${root}/${folder}/${name})
    endif()
endfunction()

function(link target name)
    get_filename_component(folder ${name} DIRECTORY)
    file(MAKE_DIRECTORY ${root}/${folder})
    file(CREATE_LINK ${target} ${root}/${name} SYMBOLIC)
endfunction()

set(program PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
    WORLD_READ WORLD_EXECUTE)
set(packaging ${sources}/packaging)
set(manuals ${BUILD}/docs/man)
set(doc usr/share/doc/${PACKAGE})

if(PACKAGE STREQUAL qm5osd)
    put_binary(${BUILD}/src/qm5osd opt/qm5/osd/bin ${program})
    put_file(${BUILD}/stage/conf/qm5_app_comm.conf opt/qm5/conf)
    put_file(${packaging}/qm5osd-service etc/init.d ${program} RENAME qm5osd)
    link(/etc/init.d/qm5osd opt/qm5/osd/bin/qm5osd-service)
    link(/opt/qm5/osd/bin/qm5osd usr/bin/qm5osd)
    put_file(${packaging}/qm5osd.service lib/systemd/system)
    put_file(${packaging}/qm5osd.tmpfiles usr/lib/tmpfiles.d RENAME qm5osd.conf)
    put_file(${BUILD}/docs/qm5osd.schema.json usr/share/qm5osd)
    put_packed(${manuals}/qm5osd.1 usr/share/man/man1 qm5osd.1)
    put_packed(${manuals}/qm5_app_comm.conf.5 usr/share/man/man5 qm5_app_comm.conf.5)
else()
    put_binary(${BUILD}/sim/qm5sim usr/bin ${program})
    put_binary(${BUILD}/stage/osd/lib/libqm5codec.so.1.2 usr/lib/x86_64-linux-gnu)
    put_binary(${BUILD}/sim/wrapper/libqm5codec.so.1.2 usr/lib/qm5sim)
    put_packed(${manuals}/qm5sim.1 usr/share/man/man1 qm5sim.1)
endif()
put_file(${packaging}/completion/${PACKAGE} usr/share/bash-completion/completions)
put_file(${packaging}/deb/copyright ${doc})
put_packed(${packaging}/deb/changelog ${doc} changelog)
put_file(${packaging}/deb/${PACKAGE}.overrides usr/share/lintian/overrides RENAME ${PACKAGE})
