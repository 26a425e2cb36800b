package Tovel::Agent::DumpingStatus;
# The dumping status document ("dumping-status.xml" in the agent's
# directory), rewritten whole after every change while a dump runs; the
# migration tool copies it to the panel every few seconds.
#
#   <dumping-status state="starting|dumping|finished|failed">
#     <started>2024-01-31T12:00:00Z</started>
#     <updated>2024-01-31T12:00:05Z</updated>
#     <objects total="7" completed="3"/>
#     <current-object type="domain">example.test</current-object>
#     <error>text</error>                       (state "failed" only)
#   </dumping-status>
use strict;
use warnings;
use POSIX ();
use Tovel::Agent::Files qw(write_atomically);
use Tovel::Agent::Xml qw(element text document);

our $FILE_NAME = 'dumping-status.xml';

sub utc_now { return POSIX::strftime('%Y-%m-%dT%H:%M:%SZ', gmtime) }

# A status for the file at path, saved at once in state "starting".
sub new {
    my ($class, $path) = @_;
    my $self = bless {
        path => $path, state => 'starting', started => utc_now(),
        total => 0, completed => 0,
    }, $class;
    $self->save;
    return $self;
}

# update(FIELD => VALUE, ...) then save. Fields: state, total, completed,
# current (an object name, undef for none), type (of the current object),
# error.
sub update {
    my ($self, %changes) = @_;
    @{$self}{ keys %changes } = values %changes;
    $self->save;
}

sub save {
    my ($self) = @_;
    my @children = (
        element('started', [], text($self->{started})),
        element('updated', [], text(utc_now())),
        element('objects', [ total => $self->{total},
                             completed => $self->{completed} ]),
    );
    push @children, element('current-object', [ type => $self->{type} ],
                            text($self->{current}))
        if defined $self->{current};
    push @children, element('error', [], text($self->{error}))
        if defined $self->{error};
    write_atomically($self->{path}, document(
        element('dumping-status', [ state => $self->{state} ], @children)));
}

1;
